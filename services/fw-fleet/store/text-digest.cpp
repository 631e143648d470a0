// SPDX-License-Identifier: Apache-2.0
#include "text-digest.h"

#include <openssl/evp.h>

#include "package-trailer.h"

namespace fleet {

std::string sha256Of(const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  const bool isDone = EVP_Digest(text.data(), text.size(), digest, &size, EVP_sha256(), nullptr) == 1;
  return isDone ? fwpackage::toHex(digest, size) : "";
}

}  // namespace fleet
