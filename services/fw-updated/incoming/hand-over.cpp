// SPDX-License-Identifier: Apache-2.0
#include "hand-over.h"

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

#include "image-signature.h"
#include "module-names.h"
#include "refusal.h"

namespace updated {
namespace {

constexpr std::int64_t kLargestFile = 2147483647;  // what a USB package may have

constexpr struct {
  const char* name;
  std::int64_t largest;
} kParts[] = {
    {kPackagePart, kLargestFile},
    {kImagePart, kLargestFile},
    {kInformationPart, 65536},  // that the library reads
    {kSignaturePart, fwpackage::kImageSignatureSize},
};

struct KindOfHandOver {
  const char* name;
  HandOverKind kind;
  std::vector<std::string> parts;  // in the order of their names
};

const std::vector<KindOfHandOver>& kinds() {
  static const std::vector<KindOfHandOver> kKinds = {
      {"package", HandOverKind::Package, {kPackagePart}},
      {"usb", HandOverKind::Usb, {kPackagePart}},
      {"image", HandOverKind::Image, {kImagePart, kInformationPart, kSignaturePart}},
  };
  return kKinds;
}

std::string listOf(const std::vector<std::string>& words) {
  std::string list;
  for (const std::string& word : words) {
    list += (list.empty() ? "" : ", ") + word;
  }
  return list;
}

}  // namespace

std::string HandOver::firmware() const {
  return fwnames::firmwareNameOf(package);
}

std::int64_t largestOf(const std::string& part) {
  const auto* const found =
      std::find_if(std::begin(kParts), std::end(kParts), [&](const auto& row) { return part == row.name; });
  return found == std::end(kParts) ? 0 : found->largest;
}

HandOver handOverOf(const std::string& kind, std::map<std::string, base::FileDescriptor> files) {
  const auto known =
      std::find_if(kinds().begin(), kinds().end(), [&](const auto& one) { return kind == one.name; });
  if (known == kinds().end()) {
    throw refusal(kInvalidArgument, "The kinds are package, usb and image.");
  }
  const bool fits = std::equal(known->parts.begin(), known->parts.end(), files.begin(), files.end(),
                               [](const auto& part, const auto& file) { return part == file.first; });
  if (!fits) {
    throw refusal(kInvalidArgument, "The files of the kind " + kind + " are " + listOf(known->parts) +
                                        ", each once and no others.");
  }
  return {known->kind, std::move(files), ""};
}

}  // namespace updated
