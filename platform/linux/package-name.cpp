// SPDX-License-Identifier: Apache-2.0
#include "package-name.h"

#include <algorithm>
#include <cstddef>

namespace fwplatform {
namespace {

constexpr std::size_t kLongestName = 127;

// ASCII alone, whatever the locale says.
bool isLetterOrDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

}  // namespace

bool isPackageName(const std::string& name) {
  return !name.empty() && name.size() <= kLongestName &&
         std::all_of(name.begin(), name.end(), isLetterOrDigit);
}

}  // namespace fwplatform
