// SPDX-License-Identifier: Apache-2.0
// Public keys that packages are signed for: files of one PEM each. The platform's
// directory is fixed. Safe from any thread.
#ifndef FW_PLATFORM_PUBLIC_KEYS_H
#define FW_PLATFORM_PUBLIC_KEYS_H

#include <string>

#include "openssl-handles.h"
#include "package-trailer.h"

namespace fwpackage {

// On the device's read-only system, beside nothing that a user may write.
inline constexpr char kKeyDirectory[] = "/usr/share/fw-update/keys";

// Null when the file holds no public key.
Key readPublicKey(const std::string& path);

// The key among the directory's "*.pem" files; null when it is not there.
Key findPublicKey(const std::string& directory, const KeyId& keyId);

// The first 8 bytes of the SHA-256 of the key's SubjectPublicKeyInfo (DER). Throws
// std::runtime_error.
KeyId keyIdOf(EVP_PKEY* key);

// Null when no algorithm signs with such a key.
const Algorithm* algorithmOf(EVP_PKEY* key);

}  // namespace fwpackage

#endif
