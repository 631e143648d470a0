// SPDX-License-Identifier: Apache-2.0
#include "usb-package.h"

#include <openssl/evp.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace usb {
namespace {

constexpr std::size_t kBlockSize = 16;

struct FreeContext {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};

void require(int result) {
  if (result != 1) {
    throw std::runtime_error("the test's own cipher failed");
  }
}

std::string crypt(const std::string& input, const std::string& withKey, const std::string& withIv,
                  bool encrypts, bool pads) {
  const std::unique_ptr<EVP_CIPHER_CTX, FreeContext> context(EVP_CIPHER_CTX_new());
  require(EVP_CipherInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, bytesOf(withKey), bytesOf(withIv),
                            encrypts ? 1 : 0));
  require(EVP_CIPHER_CTX_set_padding(context.get(), pads ? 1 : 0));
  std::string output(input.size() + kBlockSize, '\0');
  auto* const out = reinterpret_cast<unsigned char*>(output.data());
  int written = 0;
  int last = 0;
  require(EVP_CipherUpdate(context.get(), out, &written, bytesOf(input), static_cast<int>(input.size())));
  require(EVP_CipherFinal_ex(context.get(), out + written, &last));
  output.resize(static_cast<std::size_t>(written + last));
  return output;
}

// The length of a whole padding at the end, or 0.
std::size_t paddingOf(const std::string& blocks) {
  const auto length = static_cast<std::size_t>(static_cast<unsigned char>(blocks.back()));
  if (length == 0 || length > kBlockSize) {
    return 0;
  }
  const bool whole = std::all_of(blocks.end() - static_cast<std::ptrdiff_t>(length), blocks.end(),
                                 [&](char c) { return c == blocks.back(); });
  return whole ? length : 0;
}

}  // namespace

const unsigned char* bytesOf(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

const std::string& key() {
  static const std::string kValue = noise(32, 1001);
  return kValue;
}

const std::string& iv() {
  static const std::string kValue = noise(kIvSize, 1002);
  return kValue;
}

std::string noise(std::size_t size, unsigned int seed) {
  std::string out(size, '\0');
  unsigned int state = seed * 2654435761U + 1U;
  for (char& c : out) {
    state = state * 1664525U + 1013904223U;
    c = static_cast<char>(state >> 24);
  }
  return out;
}

std::string encrypt(const std::string& plaintext) {
  return crypt(plaintext, key(), iv(), true, true);
}

std::string package(const std::string& version, const std::string& image) {
  std::string block = version.substr(0, kVersionSize);
  block.resize(kVersionSize, '\0');
  const std::string signature = "SIGNED";
  return iv() + encrypt(block + image) + signature + noise(kTrailerSize - signature.size(), 1003);
}

std::string decrypt(const std::string& ciphertext, const std::string& withKey, const std::string& withIv) {
  const std::size_t whole = ciphertext.size() / kBlockSize * kBlockSize;
  std::string out = crypt(ciphertext.substr(0, whole), withKey, withIv, false, false);
  if (whole != ciphertext.size() || whole == 0) {
    return out;
  }
  const std::size_t padding = paddingOf(out);
  out.resize(out.size() - (padding == 0 ? kBlockSize : padding));
  return out;
}

}  // namespace usb
