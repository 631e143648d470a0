// SPDX-License-Identifier: Apache-2.0
// Lists of keys that stand beside the public keys: one identifier of 16 hexadecimal
// digits a line, "#" begins a comment. Safe from any thread.
#ifndef FW_PLATFORM_KEY_LISTS_H
#define FW_PLATFORM_KEY_LISTS_H

#include <cstddef>
#include <string>

#include "package-trailer.h"

namespace fwpackage {

// Keys whose packages are refused, and keys that may still sign packages of format 1.
inline constexpr char kRevokedList[] = "revoked";
inline constexpr char kOldFormatList[] = "format-1";

// The largest file of the keys' directory that is read.
inline constexpr std::size_t kLargestKeyFile = 65536;

// Unusable: it cannot be read, or a line is wrong. Who asks then refuses.
enum class Listed { No, Yes, Unusable };

// A list that is missing is an empty one.
Listed findInList(const std::string& path, const KeyId& keyId);

}  // namespace fwpackage

#endif
