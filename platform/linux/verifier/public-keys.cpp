// SPDX-License-Identifier: Apache-2.0
#include "public-keys.h"

#include <dirent.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

#include "key-lists.h"
#include "whole-file.h"

namespace fwpackage {
namespace {

struct CloseDirectory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

struct FreeDer {
  void operator()(unsigned char* der) const { OPENSSL_free(der); }
};

// Nobody is asked for a pass phrase.
int noPassPhrase(char*, int, int, void*) {
  return -1;
}

bool isPemName(const std::string& name) {
  constexpr char kEnding[] = ".pem";
  constexpr std::size_t kLength = sizeof kEnding - 1;
  return name.size() > kLength && name.compare(name.size() - kLength, kLength, kEnding) == 0;
}

}  // namespace

Key readPublicKey(const std::string& path) {
  std::string pem;
  if (base::readFile(path, kLargestKeyFile, pem) != 0) {
    return nullptr;
  }
  const Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  return Key(bio ? PEM_read_bio_PUBKEY(bio.get(), nullptr, noPassPhrase, nullptr) : nullptr);
}

Key findPublicKey(const std::string& directory, const KeyId& keyId) {
  const std::unique_ptr<DIR, CloseDirectory> opened(::opendir(directory.c_str()));
  while (const dirent* const entry = opened ? ::readdir(opened.get()) : nullptr) {
    if (!isPemName(entry->d_name)) {
      continue;
    }
    Key key = readPublicKey(directory + "/" + entry->d_name);
    if (key && keyIdOf(key.get()) == keyId) {
      return key;
    }
  }
  return nullptr;
}

KeyId keyIdOf(EVP_PKEY* key) {
  unsigned char* encoded = nullptr;
  const int length = i2d_PUBKEY(key, &encoded);
  const std::unique_ptr<unsigned char, FreeDer> der(encoded);
  unsigned char digest[EVP_MAX_MD_SIZE];
  if (length <= 0 ||
      EVP_Digest(der.get(), static_cast<std::size_t>(length), digest, nullptr, EVP_sha256(), nullptr) != 1) {
    throw std::runtime_error("the key cannot be identified");
  }
  KeyId keyId;
  std::copy_n(digest, keyId.size(), keyId.begin());
  return keyId;
}

const Algorithm* algorithmOf(EVP_PKEY* key) {
  for (const Algorithm& algorithm : kAlgorithms) {
    if (EVP_PKEY_is_a(key, algorithm.keyType) == 1 && EVP_PKEY_get_bits(key) == algorithm.keyBits) {
      return &algorithm;
    }
  }
  return nullptr;
}

}  // namespace fwpackage
