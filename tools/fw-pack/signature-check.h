// SPDX-License-Identifier: Apache-2.0
// The signature of a package as the options want it checked.
#ifndef FW_PACK_SIGNATURE_CHECK_H
#define FW_PACK_SIGNATURE_CHECK_H

#include <json/value.h>

#include "options.h"
#include "package-signature.h"

namespace fwpack {

// Throws Failure when the public key that the options name cannot be used.
fwpackage::SignatureReport checkSignature(const Options& options);

// Whether the file's name says that it signs the image beside it.
bool isImageSignature(const std::string& path);

// Whether the file is a release list.
bool isReleaseListFile(const std::string& path);

// A key that is named is trusted alone, and with everything. Throws Failure when there is none.
fwpackage::Trust trustInFile(const std::string& path);

// As checkSignature, of the signature beside an image.
fwpackage::SignatureReport checkBeside(const std::string& signature, const std::string& image,
                                       const fwpackage::Trust& trust, const fwpackage::Expectation& expected);

// "verdict", "valid", and what the trailer says as far as it says it.
Json::Value toJson(const fwpackage::SignatureReport& report);

// "the signature is valid for tunerfw 2.0.0 (ed25519, key 0123456789abcdef)"
std::string toText(const fwpackage::SignatureReport& report);

// The same for somebody who only looks: a key that is not at hand is no fault of the package.
std::string toTextForALook(const fwpackage::SignatureReport& report);

}  // namespace fwpack

#endif
