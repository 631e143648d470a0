// SPDX-License-Identifier: Apache-2.0
#include "read-package.h"

#include <algorithm>
#include <utility>

namespace fwpackage {

ReadPackage::ReadPackage(int file, Trust trust, Expectation expected)
    : trust_(std::move(trust)), check_(trust_, std::move(expected)) {
  refusal_.verdict = readTrailer(file, trailer_, contentLeft_);
  if (refusal_.verdict == Verdict::Valid) {
    check_.begin(trailer_);
  }
}

void ReadPackage::add(const unsigned char* bytes, std::size_t size) {
  if (refusal_.verdict != Verdict::Valid) {
    return;
  }
  const auto content =
      static_cast<std::size_t>(std::min<std::uint64_t>(size, static_cast<std::uint64_t>(contentLeft_)));
  check_.add(bytes, content);
  contentLeft_ -= static_cast<std::int64_t>(content);
  if (!isTrailer(bytes + content, size - content)) {
    refusal_.verdict = Verdict::WrongSignature;
  }
}

SignatureReport ReadPackage::finish() {
  if (refusal_.verdict != Verdict::Valid) {
    return refusal_;
  }
  if (trailerSeen_ != trailer_.size()) {
    refusal_.verdict = Verdict::Unreadable;
    return refusal_;
  }
  return check_.finish();
}

// Whether the trailer goes on with these bytes.
bool ReadPackage::isTrailer(const unsigned char* bytes, std::size_t size) {
  if (size > trailer_.size() - trailerSeen_ ||
      !std::equal(bytes, bytes + size, trailer_.begin() + static_cast<std::ptrdiff_t>(trailerSeen_))) {
    return false;
  }
  trailerSeen_ += size;
  return true;
}

}  // namespace fwpackage
