// SPDX-License-Identifier: Apache-2.0
// The signature of a release list: a file of its own beside it, which holds the trailer that every package
// has and nothing else. docs/formats/release-list.md. Any thread.
#ifndef FW_PLATFORM_LIST_SIGNATURE_H
#define FW_PLATFORM_LIST_SIGNATURE_H

#include <string_view>

#include "package-signature.h"

namespace fwpackage {

inline constexpr char kListName[] = "releases";  // that the trailer states
inline constexpr char kListSignatureSuffix[] = ".sig";

// Whether the signature is one of this list, as a set wants it. Both are whole files' bytes. Throws as
// PackageCheck does.
SignatureReport checkListSignature(std::string_view list, std::string_view signature, const Trust& trust);

}  // namespace fwpackage

#endif
