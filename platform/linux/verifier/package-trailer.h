// The trailer that ends a signed USB package: 534 bytes, laid out as in
// docs/formats/usb-package.md. Plain values; any thread.
#ifndef FW_PLATFORM_PACKAGE_TRAILER_H
#define FW_PLATFORM_PACKAGE_TRAILER_H

#include <array>
#include <cstddef>
#include <string>

namespace fwpackage {

inline constexpr std::size_t trailerSize = 534;
inline constexpr std::size_t headerSize = 22;
inline constexpr std::size_t signatureArea = 512;
static_assert(headerSize + signatureArea == trailerSize);

using TrailerBytes = std::array<unsigned char, trailerSize>;
using HeaderBytes = std::array<unsigned char, headerSize>;
using KeyId = std::array<unsigned char, 8>;

// How a package can be signed. The signature is made of the digest, so that a
// package of any size is read once and in little memory.
struct Algorithm {
  unsigned char number;  // in the trailer
  const char* name;
  const char* digest;
  std::size_t signatureSize;
  const char* keyType;  // OpenSSL's name
  int keyBits;
  bool signsDigestAsMessage;  // else with PKCS #1 v1.5, which names the digest
};

inline constexpr Algorithm algorithms[] = {
    {1, "rsa-4096", "SHA256", 512, "RSA", 4096, false},
    {2, "ed25519", "SHA512", 64, "ED25519", 256, true},
};

struct Trailer {
  enum class State { Good, Missing, UnknownFormat, UnknownAlgorithm, Malformed };

  State state = State::Missing;
  const Algorithm* algorithm = nullptr;  // null when it is not known
  KeyId keyId{};
  TrailerBytes bytes{};

  const unsigned char* signature() const { return bytes.data() + headerSize; }
};

// Checks everything but the signature itself.
Trailer parseTrailer(const TrailerBytes& bytes);

HeaderBytes makeHeader(const Algorithm& algorithm, const KeyId& keyId);

std::string toHex(const unsigned char* bytes, std::size_t size);

}  // namespace fwpackage

#endif
