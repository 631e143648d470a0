// SPDX-License-Identifier: Apache-2.0
// The files of a new module's project. @NAME@, @IDENTIFIER@, @FIRMWARE@ and what depends
// on the language is filled in when they are written.
#ifndef FW_MODULE_NEW_TEMPLATES_H
#define FW_MODULE_NEW_TEMPLATES_H

#include <string_view>
#include <vector>

namespace fwmodule {

struct Language {
  const char* option;  // of --language
  const char* suffix;
  const char* cmakeLanguage;
  const char* cmakeStandard;
};

inline constexpr Language kLanguages[] = {
    {"c++", "cpp", "CXX", "cxx_std_17"},
    {"c", "c", "C", "c_std_11"},
};

// Null when there is no such language.
const Language* findLanguage(const std::string_view& option);

struct Template {
  const char* path;  // within the project
  bool executable;
  std::string_view text;
};

std::vector<Template> templatesOf(const Language& language, bool extension);

}  // namespace fwmodule

#endif
