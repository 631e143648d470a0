// SPDX-License-Identifier: Apache-2.0
// The layout of a USB package (docs/formats/usb-package.md) and its cipher. One
// thread; errors are thrown as Failure.
#ifndef FW_PACK_PACKAGE_CIPHER_H
#define FW_PACK_PACKAGE_CIPHER_H

#include <openssl/evp.h>

#include <array>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "files.h"
#include "package-trailer.h"
#include "secret-file.h"

namespace fwpack {

inline constexpr std::size_t kIvSize = 16;
inline constexpr std::size_t kCipherBlock = 16;
inline constexpr std::size_t kVersionBlockSize = 64;
// Also without padding in the last block, as a reader counts it.
inline constexpr std::uint64_t kSmallestPackage = kIvSize + kVersionBlockSize + fwpackage::kTrailerSize;
inline constexpr std::uint64_t kLargestPackage = INT_MAX;  // the library counts in ints

using Iv = std::array<unsigned char, kIvSize>;

constexpr std::uint64_t packageSize(std::uint64_t imageSize) {
  const std::uint64_t plaintext = kVersionBlockSize + imageSize;
  return kIvSize + (plaintext / kCipherBlock + 1) * kCipherBlock + fwpackage::kTrailerSize;
}

// AES-256-CBC with the padding that OpenSSL applies by default.
class PackageCipher {
 public:
  enum class Direction { Decrypt = 0, Encrypt = 1 };

  PackageCipher(const secret::Secret& key, const Iv& iv, Direction direction);

  // What comes out goes to block.
  void add(const unsigned char* bytes, std::size_t size, const Block& block);
  // False when the padding is wrong, as with a wrong key.
  bool finish(const Block& block);

 private:
  struct FreeContext {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
  };
  std::unique_ptr<EVP_CIPHER_CTX, FreeContext> context_;
};

}  // namespace fwpack

#endif
