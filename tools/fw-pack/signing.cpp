// SPDX-License-Identifier: Apache-2.0
#include "signing.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "exit-code.h"
#include "image-signature.h"
#include "list-signature.h"
#include "public-keys.h"

namespace fwpack {
namespace {

using fwpackage::Bio;

int noPassPhrase(char*, int, int, void*) {
  return -1;
}

void require(bool done, const char* what) {
  if (!done) {
    const char* const reason = ERR_reason_error_string(ERR_get_error());
    throw Failure(ExitCode::Failed,
                  std::string(what) + (reason != nullptr ? std::string(": ") + reason : ""));
  }
}

fwpackage::Key parsePrivateKey(const secret::Secret& pem) {
  const Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  return fwpackage::Key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, noPassPhrase, nullptr) : nullptr);
}

// A type of one size alone does not look at the bits.
fwpackage::Key generate(const fwpackage::Algorithm& algorithm) {
  return fwpackage::Key(
      EVP_PKEY_Q_keygen(nullptr, nullptr, algorithm.keyType, static_cast<std::size_t>(algorithm.keyBits)));
}

// The kinds of key that this format has.
std::string algorithmsOf(unsigned char format) {
  std::string names;
  for (const fwpackage::Algorithm& algorithm : fwpackage::kAlgorithms) {
    if (hasFormat(algorithm, format)) {
      names += (names.empty() ? "" : " or ") + std::string(algorithm.name);
    }
  }
  return names;
}

std::vector<unsigned char> makePart(const fwpackage::Algorithm& algorithm, const fwpackage::KeyId& keyId,
                                    unsigned char format, const fwpackage::Statements& statements) {
  if (!hasFormat(algorithm, format)) {
    throw Failure(ExitCode::Failed, std::string("a package of format ") + std::to_string(format) +
                                        " cannot be signed with an " + algorithm.name +
                                        " key; use a key of " + algorithmsOf(format));
  }
  try {
    return fwpackage::makeSignedPart(format, algorithm, keyId, statements);
  } catch (const std::invalid_argument& error) {
    throw Failure(ExitCode::Failed, error.what());
  }
}

fwpackage::Sha256 sha256In(const std::string& path) {
  const base::FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  return fwpackage::sha256Of(file.get());
}

// PEM text in memory, wiped when it goes: it may be a private key.
class PemBuffer {
 public:
  PemBuffer() : bio_(BIO_new(BIO_s_secmem())) { require(bio_ != nullptr, "no memory"); }
  BIO* get() { return bio_.get(); }
  void writeTo(OutputFile& file) {
    char* text = nullptr;
    const long size = BIO_get_mem_data(bio_.get(), &text);
    file.write(reinterpret_cast<const unsigned char*>(text), static_cast<std::size_t>(size));
  }

 private:
  Bio bio_;
};

}  // namespace

SigningKey::SigningKey(const secret::Secret& pem, const std::string& name)
    : key_(parsePrivateKey(pem)), algorithm_(key_ ? fwpackage::algorithmOf(key_.get()) : nullptr) {
  if (!key_) {
    throw Failure(ExitCode::Failed, name + " holds no private key in PEM without a pass phrase");
  }
  if (algorithm_ == nullptr) {
    throw Failure(ExitCode::Failed,
                  name + " is no key to sign packages with: Ed25519, or RSA of 3072 or 4096 bits");
  }
}

SigningKey::SigningKey(const fwpackage::Algorithm& algorithm)
    : key_(generate(algorithm)), algorithm_(&algorithm) {
  require(key_ != nullptr, "no key could be made");
}

fwpackage::KeyId SigningKey::keyId() const {
  return fwpackage::keyIdOf(key_.get());
}

fwpackage::Trust SigningKey::trust() const {
  return {[this](const fwpackage::KeyId& id) {
            const bool isThis = id == keyId() && EVP_PKEY_up_ref(key_.get()) == 1;
            return fwpackage::Key(isThis ? key_.get() : nullptr);
          },
          [](const fwpackage::KeyId&) { return fwpackage::Listed::No; },
          [](const fwpackage::KeyId&) { return fwpackage::Listed::Yes; },
          [](const std::string&) { return fwpackage::MinimumVersion(); }};
}

std::string SigningKey::text() const {
  const fwpackage::KeyId id = keyId();
  return std::string(algorithm_->name) + " key " + fwpackage::toHex(id.data(), id.size());
}

fwpackage::TrailerBytes SigningKey::makeTrailer(fwpackage::PackageDigest& content, unsigned char format,
                                                const fwpackage::Statements& statements) const {
  const std::vector<unsigned char> signedPart = makePart(*algorithm_, keyId(), format, statements);
  fwpackage::TrailerBytes trailer{};
  std::copy(signedPart.begin(), signedPart.end(), trailer.begin());
  content.add(signedPart.data(), signedPart.size());
  std::size_t size = algorithm_->signatureSize;
  require(algorithm_->way->sign(key_.get(), {algorithm_->digest, content.finish()},
                                trailer.data() + signedPart.size(), size),
          "signing failed");
  require(size == algorithm_->signatureSize, "the signature has an unexpected size");
  return trailer;
}

void SigningKey::requireRoom(unsigned char format, const fwpackage::Statements& statements) const {
  makePart(*algorithm_, keyId(), format, statements);
}

void SigningKey::writePrivatePem(OutputFile& file) const {
  PemBuffer pem;
  require(PEM_write_bio_PKCS8PrivateKey(pem.get(), key_.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1,
          "the private key cannot be written");
  pem.writeTo(file);
}

void SigningKey::writePublicPem(OutputFile& file) const {
  PemBuffer pem;
  require(PEM_write_bio_PUBKEY(pem.get(), key_.get()) == 1, "the public key cannot be written");
  pem.writeTo(file);
}

void writePackageKey(const std::string& path) {
  secret::Secret key(secret::kPackageKeySize);
  if (RAND_priv_bytes(key.data(), static_cast<int>(key.size())) != 1) {
    throw Failure(ExitCode::Failed, "the system gives no random numbers");
  }
  OutputFile file(path, kSecretMode, Existing::Keep);
  file.write(key.data(), key.size());
  file.commit();
}

void appendSignature(OutputFile& package, const SigningKey& key, const fwpackage::Statements& statements) {
  fwpackage::PackageDigest digest(key.algorithm());
  InputFile(package.unfinished()).readAll([&](const unsigned char* bytes, std::size_t size) {
    digest.add(bytes, size);
  });
  const fwpackage::TrailerBytes trailer = key.makeTrailer(digest, fwpackage::kNewestFormat, statements);
  package.append(trailer.data(), trailer.size());
}

void writeImageSignature(const std::string& image, const std::string& information, const SigningKey& key,
                         const fwpackage::Statements& statements) {
  const fwpackage::ImageStatement stated = fwpackage::statementOf(sha256In(image), sha256In(information));
  fwpackage::PackageDigest digest(key.algorithm());
  digest.add(stated.data(), stated.size());
  const fwpackage::TrailerBytes trailer = key.makeTrailer(digest, fwpackage::kNewestFormat, statements);
  OutputFile signature(image + fwpackage::kImageSignatureSuffix, kPublicMode);
  signature.write(stated.data(), stated.size());
  signature.write(trailer.data(), trailer.size());
  signature.commit();
}

void writeListSignature(const std::string& list, const std::string& number, const SigningKey& key) {
  fwpackage::PackageDigest digest(key.algorithm());
  InputFile(list).readAll([&](const unsigned char* bytes, std::size_t size) { digest.add(bytes, size); });
  const fwpackage::TrailerBytes trailer = key.makeTrailer(
      digest, fwpackage::kNewestFormat, {fwpackage::Kind::ReleaseList, fwpackage::kListName, "", number, ""});
  OutputFile signature(list + fwpackage::kListSignatureSuffix, kPublicMode);
  signature.write(trailer.data(), trailer.size());
  signature.commit();
}

std::string sha256Of(const std::string& path) {
  const fwpackage::Sha256 sum = sha256In(path);
  return fwpackage::toHex(sum.data(), sum.size());
}

}  // namespace fwpack
