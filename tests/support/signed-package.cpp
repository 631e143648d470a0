// SPDX-License-Identifier: Apache-2.0
#include "signed-package.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <stdexcept>

#include "files.h"
#include "temporary-folder.h"

namespace {

constexpr char kIv[] = "0123456789abcdef";
constexpr std::size_t kVersionBlock = 64;

const unsigned char* bytesOf(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

std::string encrypt(const std::string& key, const std::string& plaintext) {
  struct Free {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
  };
  const std::unique_ptr<EVP_CIPHER_CTX, Free> context(EVP_CIPHER_CTX_new());
  std::string output(plaintext.size() + 32, '\0');
  auto* const out = reinterpret_cast<unsigned char*>(output.data());
  int length = 0;
  int last = 0;
  if (EVP_EncryptInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, bytesOf(key),
                         reinterpret_cast<const unsigned char*>(kIv)) != 1 ||
      EVP_EncryptUpdate(context.get(), out, &length, bytesOf(plaintext),
                        static_cast<int>(plaintext.size())) != 1 ||
      EVP_EncryptFinal_ex(context.get(), out + length, &last) != 1) {
    throw std::runtime_error("cannot encrypt");
  }
  output.resize(static_cast<std::size_t>(length + last));
  return output;
}

std::string withTrailer(const std::string& content, const fwpack::SigningKey& key, unsigned char format,
                        const fwpackage::Statements& statements) {
  fwpackage::PackageDigest digest(key.algorithm());
  digest.add(bytesOf(content), content.size());
  const fwpackage::TrailerBytes trailer = key.makeTrailer(digest, format, statements);
  return content + std::string(trailer.begin(), trailer.end());
}

// Three small primes are found in a fraction of the time that two large ones take.
fwpack::SigningKey makeKey(const fwpackage::Algorithm& algorithm) {
  if (algorithm.way == &fwpackage::kDigestAsMessage) {
    return fwpack::SigningKey(algorithm);
  }
  const fwpackage::KeyContext context(EVP_PKEY_CTX_new_from_name(nullptr, algorithm.keyType, nullptr));
  EVP_PKEY* made = nullptr;
  if (EVP_PKEY_keygen_init(context.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), algorithm.keyBits) != 1 ||
      EVP_PKEY_CTX_set_rsa_keygen_primes(context.get(), 3) != 1 ||
      EVP_PKEY_generate(context.get(), &made) != 1) {
    throw std::runtime_error("cannot make a key");
  }
  const fwpackage::Key key(made);
  const fwpackage::Bio pem(BIO_new(BIO_s_mem()));
  PEM_write_bio_PKCS8PrivateKey(pem.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  char* text = nullptr;
  const long size = BIO_get_mem_data(pem.get(), &text);
  secret::Secret secret(static_cast<std::size_t>(size));
  std::copy_n(text, size, secret.data());
  return fwpack::SigningKey(secret, "the test's key");
}

}  // namespace

const fwpack::SigningKey& testSigningKey(const std::string& algorithm) {
  static std::map<std::string, fwpack::SigningKey> keys;
  for (const auto& known : fwpackage::kAlgorithms) {
    if (algorithm == known.name) {
      const auto found = keys.find(algorithm);
      return found != keys.end() ? found->second : keys.emplace(algorithm, makeKey(known)).first->second;
    }
  }
  throw std::runtime_error("no algorithm " + algorithm);
}

std::string publicPem(const fwpack::SigningKey& key) {
  const base::TemporaryFolder directory(std::filesystem::temp_directory_path() / "fw-package");
  const std::string path = directory.path() + "/key.pem";
  fwpack::OutputFile file(path, fwpack::kPublicMode);
  key.writePublicPem(file);
  file.commit();
  std::ifstream written(path);
  return {std::istreambuf_iterator<char>(written), std::istreambuf_iterator<char>()};
}

fwpackage::Statements statementsFor(const std::string& name) {
  fwpackage::Statements statements;
  statements.name = name;
  statements.version = "2.0.0";
  return statements;
}

std::string signedFile(const std::string& content, const fwpack::SigningKey& key,
                       const fwpackage::Statements& statements) {
  return withTrailer(content, key, fwpackage::kNewestFormat, statements);
}

std::string oldSignedFile(const std::string& content, const fwpack::SigningKey& key) {
  return withTrailer(content, key, fwpackage::kOldFormat, {});
}

std::string usbPackage(const std::string& key, const std::string& version, const std::string& image,
                       const fwpack::SigningKey& signer, const std::string& name) {
  std::string plaintext = version;
  plaintext.resize(kVersionBlock);
  fwpackage::Statements statements = statementsFor(name);
  statements.version = version;
  return signedFile(std::string(kIv, 16) + encrypt(key, plaintext + image), signer, statements);
}
