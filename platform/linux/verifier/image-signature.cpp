// SPDX-License-Identifier: Apache-2.0
#include "image-signature.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <vector>

namespace fwpackage {
namespace {

constexpr std::size_t kReadSize = 65536;

// Fewer bytes than asked for at the file's end alone.
std::size_t readSome(int file, unsigned char* bytes, std::size_t size, off_t offset) {
  ssize_t count = 0;
  do {
    count = ::pread(file, bytes, size, offset);
  } while (count < 0 && errno == EINTR);
  if (count < 0) {
    throw std::runtime_error("the file cannot be read");
  }
  return static_cast<std::size_t>(count);
}

// What the signature states of the files; of a file that holds just a statement and a trailer.
bool readStatement(int signature, ImageStatement& statement) {
  return readSome(signature, statement.data(), statement.size(), 0) == statement.size();
}

}  // namespace

Sha256 sha256Of(int file) {
  const DigestContext context(EVP_MD_CTX_new());
  if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
    throw std::runtime_error("the digest cannot be started");
  }
  std::vector<unsigned char> block(kReadSize);
  off_t offset = 0;
  while (const std::size_t count = readSome(file, block.data(), block.size(), offset)) {
    if (EVP_DigestUpdate(context.get(), block.data(), count) != 1) {
      throw std::runtime_error("the digest failed");
    }
    offset += static_cast<off_t>(count);
  }
  Sha256 digest{};
  if (EVP_DigestFinal_ex(context.get(), digest.data(), nullptr) != 1) {
    throw std::runtime_error("the digest failed");
  }
  return digest;
}

ImageStatement statementOf(const Sha256& image, const Sha256& information) {
  ImageStatement statement{};
  std::copy(image.begin(), image.end(), statement.begin());
  std::copy(information.begin(), information.end(), statement.begin() + image.size());
  return statement;
}

SignatureReport checkImageSignature(int signature, int image, int information, const Trust& trust,
                                    const Expectation& expected) {
  SignatureReport report = checkSignature(signature, trust, expected);
  if (report.verdict != Verdict::Valid) {
    return report;
  }
  TrailerBytes trailer;
  std::int64_t content = 0;
  ImageStatement stated{};
  report.verdict = readTrailer(signature, trailer, content);
  if (report.verdict == Verdict::Valid && content != static_cast<std::int64_t>(stated.size())) {
    report.verdict = Verdict::MalformedTrailer;
  } else if (report.verdict == Verdict::Valid &&
             (!readStatement(signature, stated) ||
              stated != statementOf(sha256Of(image), sha256Of(information)))) {
    report.verdict = Verdict::WrongSignature;
  }
  return report;
}

}  // namespace fwpackage
