// SPDX-License-Identifier: Apache-2.0
// The trailer that ends a signed package: 534 bytes, laid out as in
// docs/formats/usb-package.md. Plain values; any thread.
#ifndef FW_PLATFORM_PACKAGE_TRAILER_H
#define FW_PLATFORM_PACKAGE_TRAILER_H

#include <array>
#include <cstddef>
#include <string>
#include <vector>

#include "signature-way.h"

namespace fwpackage {

inline constexpr std::size_t kTrailerSize = 534;
inline constexpr std::size_t kHeaderSize = 22;
inline constexpr std::size_t kSignatureArea = 512;
static_assert(kHeaderSize + kSignatureArea == kTrailerSize);

using TrailerBytes = std::array<unsigned char, kTrailerSize>;
using KeyId = std::array<unsigned char, 8>;

// The first names nothing: a package of format 1 fits every component.
inline constexpr unsigned char kOldFormat = 1;
inline constexpr unsigned char kNewestFormat = 2;

// How a package can be signed. The signature is made of the digest, so that a
// package of any size is read once and in little memory.
struct Algorithm {
  unsigned char number;  // in the trailer
  const char* name;
  const char* digest;
  std::size_t signatureSize;
  const char* keyType;  // OpenSSL's name
  int keyBits;
  const SignatureWay* way;
  unsigned char firstFormat;
  unsigned char lastFormat;
};

// A signature of 512 bytes leaves format 2 no room for what it states.
inline constexpr Algorithm kAlgorithms[] = {
    {1, "rsa-4096", "SHA256", 512, "RSA", 4096, &kPkcs1, kOldFormat, kOldFormat},
    {2, "ed25519", "SHA512", 64, "ED25519", 256, &kDigestAsMessage, kOldFormat, kNewestFormat},
    {3, "rsa-3072", "SHA256", 384, "RSA", 3072, &kPkcs1, kNewestFormat, kNewestFormat},
};

bool hasFormat(const Algorithm& algorithm, unsigned char format);

enum class Kind : unsigned char { UsbPackage = 1, ExtensionPackage = 2, Image = 3, ReleaseList = 4 };

// What a trailer of format 2 states about the content before it.
struct Statements {
  Kind kind = Kind::UsbPackage;
  std::string name;            // the firmware's name, or the package's identifier
  std::string model;           // of the set; empty: for any
  std::string version;         // the firmware's
  std::string minimumVersion;  // from then on; empty: as before
};

struct Trailer {
  enum class State { Good, Missing, UnknownFormat, UnknownAlgorithm, Malformed };

  State state = State::Missing;
  unsigned char format = 0;
  const Algorithm* algorithm = nullptr;  // null when it is not known
  KeyId keyId{};
  Statements statements;  // of format 2, when the state is Good
  TrailerBytes bytes{};

  // How many of the bytes are signed, from the first on; of a known algorithm.
  std::size_t signedSize() const;
  const unsigned char* signature() const { return bytes.data() + signedSize(); }
};

// Checks everything but the signature itself.
Trailer parseTrailer(const TrailerBytes& bytes);

// The bytes before the signature. The statements are for format 2 alone. Throws
// std::invalid_argument, with a sentence, for what the format cannot hold.
std::vector<unsigned char> makeSignedPart(unsigned char format, const Algorithm& algorithm,
                                          const KeyId& keyId, const Statements& statements);

std::string toHex(const unsigned char* bytes, std::size_t size);

}  // namespace fwpackage

#endif
