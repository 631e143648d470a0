// SPDX-License-Identifier: Apache-2.0
#include "signature-way.h"

#include <openssl/rsa.h>

#include "openssl-handles.h"

namespace fwpackage {
namespace {

bool signMessage(EVP_PKEY* key, const Digest& digest, unsigned char* signature, std::size_t& size) {
  const DigestContext context(EVP_MD_CTX_new());
  return context && EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key) == 1 &&
         EVP_DigestSign(context.get(), signature, &size, digest.bytes.data(), digest.bytes.size()) == 1;
}

bool verifyMessage(EVP_PKEY* key, const Digest& digest, const unsigned char* signature, std::size_t size) {
  const DigestContext context(EVP_MD_CTX_new());
  return context && EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key) == 1 &&
         EVP_DigestVerify(context.get(), signature, size, digest.bytes.data(), digest.bytes.size()) == 1;
}

bool choosePkcs1(EVP_PKEY_CTX* context, const Digest& digest) {
  return EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PADDING) == 1 &&
         EVP_PKEY_CTX_set_signature_md(context, EVP_get_digestbyname(digest.name)) == 1;
}

bool signPkcs1(EVP_PKEY* key, const Digest& digest, unsigned char* signature, std::size_t& size) {
  const KeyContext context(EVP_PKEY_CTX_new(key, nullptr));
  return context && EVP_PKEY_sign_init(context.get()) == 1 && choosePkcs1(context.get(), digest) &&
         EVP_PKEY_sign(context.get(), signature, &size, digest.bytes.data(), digest.bytes.size()) == 1;
}

bool verifyPkcs1(EVP_PKEY* key, const Digest& digest, const unsigned char* signature, std::size_t size) {
  const KeyContext context(EVP_PKEY_CTX_new(key, nullptr));
  return context && EVP_PKEY_verify_init(context.get()) == 1 && choosePkcs1(context.get(), digest) &&
         EVP_PKEY_verify(context.get(), signature, size, digest.bytes.data(), digest.bytes.size()) == 1;
}

}  // namespace

const SignatureWay kDigestAsMessage = {signMessage, verifyMessage};
const SignatureWay kPkcs1 = {signPkcs1, verifyPkcs1};

}  // namespace fwpackage
