// SPDX-License-Identifier: Apache-2.0
// Owners of the OpenSSL handles that signatures need.
#ifndef FW_PLATFORM_OPENSSL_HANDLES_H
#define FW_PLATFORM_OPENSSL_HANDLES_H

#include <openssl/bio.h>
#include <openssl/evp.h>

#include <memory>

namespace fwpackage {

struct FreeKey {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using Key = std::unique_ptr<EVP_PKEY, FreeKey>;

struct FreeKeyContext {
  void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
};
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, FreeKeyContext>;

struct FreeDigestContext {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using DigestContext = std::unique_ptr<EVP_MD_CTX, FreeDigestContext>;

struct FreeBio {
  void operator()(BIO* bio) const { BIO_free_all(bio); }
};
using Bio = std::unique_ptr<BIO, FreeBio>;

}  // namespace fwpackage

#endif
