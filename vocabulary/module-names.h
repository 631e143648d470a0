// SPDX-License-Identifier: Apache-2.0
// The names of modules, packages and firmware, and what they say. Pure functions; any
// thread.
#ifndef MODULE_NAMES_H
#define MODULE_NAMES_H

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <string>

namespace fwnames {

// Whether a library name contains "EXT-" in any case, deliberately: such a module
// has no package and runs its own procedure.
inline bool isExtensionModule(std::string library) {
  std::transform(library.begin(), library.end(), library.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return library.find("EXT-") != std::string::npos;
}

// Whether a package identifier has an "emp", which counts in lower case only, deliberately.
inline bool namesFirmware(const std::string& identifier) {
  return identifier.find("emp") != std::string::npos;
}

// The firmware name of a package identifier: without its first "emp", as it stands when
// it has none.
inline std::string firmwareNameOf(std::string identifier) {
  const std::size_t emp = identifier.find("emp");
  return emp == std::string::npos ? identifier : identifier.erase(emp, 3);
}

// ASCII alone, whatever the locale says.
inline bool isLetterOrDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// Firmware names and package identifiers: one or more letters and digits, which makes them
// safe as parts of file names.
inline bool isPlainName(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), isLetterOrDigit);
}

// The same as the text of a module, which has a buffer of 128 bytes for it.
inline bool isPackageName(const std::string& text) {
  constexpr std::size_t kLongest = 127;
  return isPlainName(text) && text.size() <= kLongest;
}

}  // namespace fwnames

#endif
