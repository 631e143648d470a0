#include "package-trailer.h"

#include <algorithm>

namespace fwpackage {
namespace {

constexpr unsigned char magic[] = {'F', 'W', 'S', 'I', 'G', 'N', 'E', 'D'};
constexpr unsigned char formatVersion = 1;

constexpr std::size_t formatAt = 8;
constexpr std::size_t algorithmAt = 9;
constexpr std::size_t keyIdAt = 10;
constexpr std::size_t sizeAt = 18;

const Algorithm* findAlgorithm(unsigned char number) {
  for (const Algorithm& algorithm : algorithms) {
    if (algorithm.number == number) {
      return &algorithm;
    }
  }
  return nullptr;
}

// The one header that this algorithm and key have: a length or reserved byte that
// differs is refused with it. Behind the signature stand zeros alone.
bool isWellFormed(const Trailer& trailer) {
  const HeaderBytes expected = makeHeader(*trailer.algorithm, trailer.keyId);
  return std::equal(expected.begin(), expected.end(), trailer.bytes.begin()) &&
         std::all_of(trailer.signature() + trailer.algorithm->signatureSize,
                     trailer.bytes.data() + trailerSize, [](unsigned char byte) { return byte == 0; });
}

}  // namespace

Trailer parseTrailer(const TrailerBytes& bytes) {
  Trailer trailer;
  trailer.bytes = bytes;
  if (!std::equal(std::begin(magic), std::end(magic), bytes.begin())) {
    return trailer;
  }
  trailer.state = Trailer::State::UnknownFormat;
  if (bytes[formatAt] != formatVersion) {
    return trailer;
  }
  trailer.state = Trailer::State::UnknownAlgorithm;
  trailer.algorithm = findAlgorithm(bytes[algorithmAt]);
  if (trailer.algorithm == nullptr) {
    return trailer;
  }
  std::copy_n(bytes.begin() + keyIdAt, trailer.keyId.size(), trailer.keyId.begin());
  trailer.state = isWellFormed(trailer) ? Trailer::State::Good : Trailer::State::Malformed;
  return trailer;
}

HeaderBytes makeHeader(const Algorithm& algorithm, const KeyId& keyId) {
  HeaderBytes header{};
  std::copy(std::begin(magic), std::end(magic), header.begin());
  header[formatAt] = formatVersion;
  header[algorithmAt] = algorithm.number;
  std::copy(keyId.begin(), keyId.end(), header.begin() + keyIdAt);
  header[sizeAt] = static_cast<unsigned char>(algorithm.signatureSize & 0xFFU);
  header[sizeAt + 1] = static_cast<unsigned char>(algorithm.signatureSize >> 8U);
  return header;
}

std::string toHex(const unsigned char* bytes, std::size_t size) {
  constexpr char digits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    text += digits[bytes[i] >> 4U];
    text += digits[bytes[i] & 0x0FU];
  }
  return text;
}

}  // namespace fwpackage
