// SPDX-License-Identifier: Apache-2.0
// Makes signed USB packages for tests, in memory. Plain functions and values.
#ifndef TESTS_SUPPORT_SIGNED_PACKAGE_H
#define TESTS_SUPPORT_SIGNED_PACKAGE_H

#include <string>

#include "signing.h"

// A key of "ed25519", "rsa-3072" or "rsa-4096", the same in the whole process.
const fwpack::SigningKey& testSigningKey(const std::string& algorithm);

// The PEM text of its public half.
std::string publicPem(const fwpack::SigningKey& key);

// A USB package of version 2.0.0 for any set.
fwpackage::Statements statementsFor(const std::string& name);

// content with the trailer that signs it.
std::string signedFile(const std::string& content, const fwpack::SigningKey& key,
                       const fwpackage::Statements& statements = statementsFor("tunerfw"));
// The same in format 1.
std::string oldSignedFile(const std::string& content, const fwpack::SigningKey& key);

// A whole package: key has 32 bytes.
std::string usbPackage(const std::string& key, const std::string& version, const std::string& image,
                       const fwpack::SigningKey& signer, const std::string& name = "tunerfw");

#endif
