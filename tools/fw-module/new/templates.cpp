// SPDX-License-Identifier: Apache-2.0
#include "templates.h"

#include <cstddef>

// In templates.S.
extern "C" {
extern const char fwModuleBuild[], fwModuleBuildEnd[];
extern const char fwModuleReadme[], fwModuleReadmeEnd[];
extern const char fwModuleExports[], fwModuleExportsEnd[];
extern const char fwModuleDeviceTest[], fwModuleDeviceTestEnd[];
extern const char fwModuleCComponentHeader[], fwModuleCComponentHeaderEnd[];
extern const char fwModuleCComponent[], fwModuleCComponentEnd[];
extern const char fwModuleCReason[], fwModuleCReasonEnd[];
extern const char fwModuleCModule[], fwModuleCModuleEnd[];
extern const char fwModuleCExtModule[], fwModuleCExtModuleEnd[];
extern const char fwModuleCppComponentHeader[], fwModuleCppComponentHeaderEnd[];
extern const char fwModuleCppComponent[], fwModuleCppComponentEnd[];
extern const char fwModuleCppReason[], fwModuleCppReasonEnd[];
extern const char fwModuleCppModule[], fwModuleCppModuleEnd[];
extern const char fwModuleCppExtModule[], fwModuleCppExtModuleEnd[];
}

namespace fwmodule {
namespace {

enum class Kind { Any, Ordinary, Extension };

// What a file is for: every language when language is null.
struct Row {
  const char* language;
  Kind kind;
  const char* path;
  bool executable;
  const char* begin;
  const char* end;
};

const Row kRows[] = {
    {nullptr, Kind::Any, "CMakeLists.txt", false, fwModuleBuild, fwModuleBuildEnd},
    {nullptr, Kind::Any, "README.md", false, fwModuleReadme, fwModuleReadmeEnd},
    {nullptr, Kind::Any, "exports.map", false, fwModuleExports, fwModuleExportsEnd},
    {nullptr, Kind::Any, "update-on-a-device", true, fwModuleDeviceTest, fwModuleDeviceTestEnd},
    {"c", Kind::Any, "component.h", false, fwModuleCComponentHeader, fwModuleCComponentHeaderEnd},
    {"c", Kind::Any, "component.c", false, fwModuleCComponent, fwModuleCComponentEnd},
    {"c", Kind::Any, "reason.h", false, fwModuleCReason, fwModuleCReasonEnd},
    {"c", Kind::Ordinary, "module.c", false, fwModuleCModule, fwModuleCModuleEnd},
    {"c", Kind::Extension, "module.c", false, fwModuleCExtModule, fwModuleCExtModuleEnd},
    {"c++", Kind::Any, "component.h", false, fwModuleCppComponentHeader, fwModuleCppComponentHeaderEnd},
    {"c++", Kind::Any, "component.cpp", false, fwModuleCppComponent, fwModuleCppComponentEnd},
    {"c++", Kind::Any, "reason.h", false, fwModuleCppReason, fwModuleCppReasonEnd},
    {"c++", Kind::Ordinary, "module.cpp", false, fwModuleCppModule, fwModuleCppModuleEnd},
    {"c++", Kind::Extension, "module.cpp", false, fwModuleCppExtModule, fwModuleCppExtModuleEnd},
};

}  // namespace

const Language* findLanguage(const std::string_view& option) {
  for (const Language& language : kLanguages) {
    if (option == language.option) {
      return &language;
    }
  }
  return nullptr;
}

std::vector<Template> templatesOf(const Language& language, bool extension) {
  std::vector<Template> chosen;
  for (const Row& row : kRows) {
    const bool spoken = row.language == nullptr || std::string_view(row.language) == language.option;
    const bool wanted = row.kind == Kind::Any || (row.kind == Kind::Extension) == extension;
    if (spoken && wanted) {
      chosen.push_back(
          {row.path, row.executable, {row.begin, static_cast<std::size_t>(row.end - row.begin)}});
    }
  }
  return chosen;
}

}  // namespace fwmodule
