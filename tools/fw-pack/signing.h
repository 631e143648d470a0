// SPDX-License-Identifier: Apache-2.0
// Keys that sign packages, and the trailer they make. Errors are thrown as Failure.
#ifndef FW_PACK_SIGNING_H
#define FW_PACK_SIGNING_H

#include <string>

#include "files.h"
#include "package-signature.h"
#include "secret-file.h"

namespace fwpack {

class SigningKey {
 public:
  // A PEM private key without a pass phrase, of a kind that a package can be signed
  // with; name is for messages.
  SigningKey(const secret::Secret& pem, const std::string& name);

  // A new key of this algorithm.
  explicit SigningKey(const fwpackage::Algorithm& algorithm);

  const fwpackage::Algorithm& algorithm() const { return *algorithm_; }
  fwpackage::KeyId keyId() const;
  // What it signed is valid, and nothing else. The key outlives it.
  fwpackage::Trust trust() const;
  // "ed25519 key 0123456789abcdef"
  std::string text() const;

  // content: the digest of everything before the trailer, not finished. The statements
  // are for the newest format alone.
  fwpackage::TrailerBytes makeTrailer(fwpackage::PackageDigest& content, unsigned char format,
                                      const fwpackage::Statements& statements) const;
  // Fails with a sentence, as makeTrailer would.
  void requireRoom(unsigned char format, const fwpackage::Statements& statements) const;

  void writePrivatePem(OutputFile& file) const;
  void writePublicPem(OutputFile& file) const;

 private:
  fwpackage::Key key_;
  const fwpackage::Algorithm* algorithm_;
};

// A new key to encrypt packages with. A file that is there already is not overwritten.
void writePackageKey(const std::string& path);

// Puts the trailer that signs it, in the newest format, behind a package whose content is
// all there.
void appendSignature(OutputFile& package, const SigningKey& key, const fwpackage::Statements& statements);

// Puts beside an image, in a file of its own, what signs it together with its info.json.
void writeImageSignature(const std::string& image, const std::string& information, const SigningKey& key,
                         const fwpackage::Statements& statements);

// Puts beside a release list what signs it.
void writeListSignature(const std::string& list, const std::string& number, const SigningKey& key);

// Of a file's bytes, in digits.
std::string sha256Of(const std::string& path);

}  // namespace fwpack

#endif
