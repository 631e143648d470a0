// SPDX-License-Identifier: Apache-2.0
#include "package-cipher.h"

#include <vector>

#include "exit-code.h"

namespace fwpack {

PackageCipher::PackageCipher(const secret::Secret& key, const Iv& iv, Direction direction)
    : context_(EVP_CIPHER_CTX_new()) {
  if (!context_ || key.size() != secret::kPackageKeySize ||
      EVP_CipherInit_ex(context_.get(), EVP_aes_256_cbc(), nullptr, key.data(), iv.data(),
                        static_cast<int>(direction)) != 1) {
    throw Failure(ExitCode::Failed, "the cipher cannot be started");
  }
}

void PackageCipher::add(const unsigned char* bytes, std::size_t size, const Block& block) {
  std::vector<unsigned char> output(size + kCipherBlock);
  int produced = 0;
  if (EVP_CipherUpdate(context_.get(), output.data(), &produced, bytes, static_cast<int>(size)) != 1) {
    throw Failure(ExitCode::Failed, "the cipher failed");
  }
  block(output.data(), static_cast<std::size_t>(produced));
}

bool PackageCipher::finish(const Block& block) {
  unsigned char output[kCipherBlock];
  int produced = 0;
  if (EVP_CipherFinal_ex(context_.get(), output, &produced) != 1) {
    return false;
  }
  block(output, static_cast<std::size_t>(produced));
  return true;
}

}  // namespace fwpack
