// SPDX-License-Identifier: Apache-2.0
// How the digest of a package is signed, and a signature checked, with OpenSSL. Plain
// functions; any thread.
#ifndef FW_PLATFORM_SIGNATURE_WAY_H
#define FW_PLATFORM_SIGNATURE_WAY_H

#include <openssl/evp.h>

#include <cstddef>
#include <vector>

namespace fwpackage {

struct Digest {
  const char* name;  // OpenSSL's
  const std::vector<unsigned char>& bytes;
};

struct SignatureWay {
  // signature has room for size bytes; size is what was written. False when it cannot be made.
  bool (*sign)(EVP_PKEY* key, const Digest& digest, unsigned char* signature, std::size_t& size);
  bool (*verify)(EVP_PKEY* key, const Digest& digest, const unsigned char* signature, std::size_t size);
};

extern const SignatureWay kDigestAsMessage;
// PKCS #1 v1.5, which names the digest.
extern const SignatureWay kPkcs1;

}  // namespace fwpackage

#endif
