// SPDX-License-Identifier: Apache-2.0
#include "package-trailer.h"

#include <algorithm>
#include <optional>
#include <stdexcept>

#include "module-names.h"

namespace fwpackage {
namespace {

constexpr unsigned char kMagic[] = {'F', 'W', 'S', 'I', 'G', 'N', 'E', 'D'};

constexpr std::size_t kFormatAt = 8;
constexpr std::size_t kAlgorithmAt = 9;
constexpr std::size_t kKeyIdAt = 10;
constexpr std::size_t kSizeAt = 18;
constexpr std::size_t kKindAt = 20;
constexpr std::size_t kLongestText = 255;  // its length is one byte

struct Text {
  std::string Statements::*member;
  const char* what;
};

// In the trailer's order.
constexpr Text kTexts[] = {
    {&Statements::name, "name"},
    {&Statements::model, "model"},
    {&Statements::version, "version"},
    {&Statements::minimumVersion, "minimum version"},
};

const Algorithm* findAlgorithm(unsigned char number, unsigned char format) {
  for (const Algorithm& algorithm : kAlgorithms) {
    if (algorithm.number == number && hasFormat(algorithm, format)) {
      return &algorithm;
    }
  }
  return nullptr;
}

std::size_t signedSizeOf(unsigned char format, const Algorithm& algorithm) {
  return format == kOldFormat ? kHeaderSize : kTrailerSize - algorithm.signatureSize;
}

bool isPrintable(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

void require(bool good, const std::string& sentence) {
  if (!good) {
    throw std::invalid_argument(sentence);
  }
}

void requireStatable(const Statements& statements) {
  require(statements.kind >= Kind::UsbPackage && statements.kind <= Kind::ReleaseList,
          "there is no such kind of package");
  require(fwnames::isPlainName(statements.name), "a package's name has ASCII letters and digits only");
  for (const Text& text : kTexts) {
    const std::string& value = statements.*text.member;
    require(value.size() <= kLongestText && isPrintable(value),
            std::string("a ") + text.what + " is printable ASCII text of at most 255 characters");
  }
}

void appendStatements(std::vector<unsigned char>& bytes, const Statements& statements, std::size_t end) {
  requireStatable(statements);
  for (const Text& text : kTexts) {
    const std::string& value = statements.*text.member;
    bytes.push_back(static_cast<unsigned char>(value.size()));
    bytes.insert(bytes.end(), value.begin(), value.end());
  }
  require(bytes.size() <= end,
          "name, model, version and minimum version are too long: together they may have " +
              std::to_string(end - kHeaderSize - std::size(kTexts)) +
              " characters with this kind of signing key");
  bytes.resize(end, 0);
}

// Nothing when a text reaches beyond the end. The rest is compared by isWellFormed.
std::optional<Statements> readStatements(const TrailerBytes& bytes, std::size_t end) {
  Statements statements;
  statements.kind = static_cast<Kind>(bytes[kKindAt]);
  std::string_view left(reinterpret_cast<const char*>(bytes.data()) + kHeaderSize, end - kHeaderSize);
  for (const Text& text : kTexts) {
    const std::size_t length = left.empty() ? 0 : static_cast<unsigned char>(left[0]);
    if (left.size() < 1 + length) {
      return std::nullopt;
    }
    statements.*text.member = left.substr(1, length);
    left = left.substr(1 + length);
  }
  return statements;
}

// What was read is written once more: a length, reserved byte or filling that differs
// is refused with it. Behind a signature of format 1 stand zeros alone.
bool isWellFormed(const Trailer& trailer) {
  try {
    const auto expected =
        makeSignedPart(trailer.format, *trailer.algorithm, trailer.keyId, trailer.statements);
    return std::equal(expected.begin(), expected.end(), trailer.bytes.begin()) &&
           std::all_of(trailer.signature() + trailer.algorithm->signatureSize,
                       trailer.bytes.data() + kTrailerSize, [](unsigned char byte) { return byte == 0; });
  } catch (const std::invalid_argument&) {
    return false;
  }
}

}  // namespace

bool hasFormat(const Algorithm& algorithm, unsigned char format) {
  return format >= algorithm.firstFormat && format <= algorithm.lastFormat;
}

std::size_t Trailer::signedSize() const {
  return signedSizeOf(format, *algorithm);
}

Trailer parseTrailer(const TrailerBytes& bytes) {
  Trailer trailer;
  trailer.bytes = bytes;
  if (!std::equal(std::begin(kMagic), std::end(kMagic), bytes.begin())) {
    return trailer;
  }
  trailer.state = Trailer::State::UnknownFormat;
  trailer.format = bytes[kFormatAt];
  if (trailer.format < kOldFormat || trailer.format > kNewestFormat) {
    return trailer;
  }
  trailer.state = Trailer::State::UnknownAlgorithm;
  trailer.algorithm = findAlgorithm(bytes[kAlgorithmAt], trailer.format);
  if (trailer.algorithm == nullptr) {
    return trailer;
  }
  std::copy_n(bytes.begin() + kKeyIdAt, trailer.keyId.size(), trailer.keyId.begin());
  trailer.state = Trailer::State::Malformed;
  if (trailer.format != kOldFormat) {
    const auto statements = readStatements(bytes, trailer.signedSize());
    if (!statements) {
      return trailer;
    }
    trailer.statements = *statements;
  }
  if (isWellFormed(trailer)) {
    trailer.state = Trailer::State::Good;
  } else {
    trailer.statements = {};
  }
  return trailer;
}

std::vector<unsigned char> makeSignedPart(unsigned char format, const Algorithm& algorithm,
                                          const KeyId& keyId, const Statements& statements) {
  require(hasFormat(algorithm, format), std::string("format ") + std::to_string(format) +
                                            " of the trailer has no room for " + algorithm.name);
  std::vector<unsigned char> bytes(kHeaderSize);
  std::copy(std::begin(kMagic), std::end(kMagic), bytes.begin());
  bytes[kFormatAt] = format;
  bytes[kAlgorithmAt] = algorithm.number;
  std::copy(keyId.begin(), keyId.end(), bytes.begin() + kKeyIdAt);
  bytes[kSizeAt] = static_cast<unsigned char>(algorithm.signatureSize & 0xFFU);
  bytes[kSizeAt + 1] = static_cast<unsigned char>(algorithm.signatureSize >> 8U);
  if (format != kOldFormat) {
    bytes[kKindAt] = static_cast<unsigned char>(statements.kind);
    appendStatements(bytes, statements, signedSizeOf(format, algorithm));
  }
  return bytes;
}

std::string toHex(const unsigned char* bytes, std::size_t size) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    text += kDigits[bytes[i] >> 4U];
    text += kDigits[bytes[i] & 0x0FU];
  }
  return text;
}

}  // namespace fwpackage
