// Makes signed USB packages for tests, in memory. Plain functions and values.
#ifndef TESTS_SUPPORT_SIGNED_PACKAGE_H
#define TESTS_SUPPORT_SIGNED_PACKAGE_H

#include <string>

#include "signing.h"

// A new key of "ed25519" or "rsa-4096". The same object in the whole process for
// the latter: such a key takes a second to make.
const fwpack::SigningKey& testSigningKey(const std::string& algorithm);

// The PEM text of its public half.
std::string publicPem(const fwpack::SigningKey& key);

// content with the trailer that signs it.
std::string signedFile(const std::string& content, const fwpack::SigningKey& key);

// A whole package: key has 32 bytes.
std::string usbPackage(const std::string& key, const std::string& version, const std::string& image,
                       const fwpack::SigningKey& signer);

#endif
