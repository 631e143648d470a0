// SPDX-License-Identifier: Apache-2.0
// What the update library may count on with every module that ships.
#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <set>
#include <sstream>

#include "module-test.h"

namespace {

using Names = std::set<std::string>;

const char* const kEntryPoints[] = {"setContext",          "getEMPID",        "getActiveVersion",
                                    "checkVersion",        "doUpdate",        "allUpdateDone",
                                    "doUpdate_decryption", "getExpectedTime", "getUpdateProgress"};

std::string outputOf(const std::string& command) {
  std::string output;
  FILE* pipe = ::popen(command.c_str(), "r");
  for (std::array<char, 4096> line; std::fgets(line.data(), line.size(), pipe) != nullptr;) {
    output += line.data();
  }
  EXPECT_EQ(::pclose(pipe), 0) << command;
  return output;
}

Names exportsOf(const std::string& path) {
  Names names;
  std::istringstream lines(outputOf("nm -D --defined-only '" + path + "'"));
  for (std::string address, type, name; lines >> address >> type >> name;) {
    names.insert(name);
  }
  return names;
}

class EveryModule : public ModuleTest, public testing::WithParamInterface<const char*> {
 protected:
  const std::string path_ = modulePath(GetParam());
};

INSTANTIATE_TEST_SUITE_P(Modules, EveryModule,
                         testing::Values("libtuner.so", "libpanel.so", "libwifi.so", "libEXT-remote.so"),
                         [](const auto& parameter) {
                           std::string name = parameter.param;
                           name = name.substr(3, name.find('.') - 3);
                           name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
                           return name;
                         });

TEST_P(EveryModule, ExportsTheEntryPointsAndNothingElse) {
  const Names exports = exportsOf(path_);

  EXPECT_EQ(exports, Names(std::begin(kEntryPoints), std::end(kEntryPoints)));
}

TEST_P(EveryModule, DoesNotNeedTheUpdateLibrary) {
  const std::string dynamicSection = outputOf("readelf -d '" + path_ + "'");

  EXPECT_NE(dynamicSection.find("libstdc++"), std::string::npos);
  EXPECT_EQ(dynamicSection.find("libfw-update-control"), std::string::npos) << dynamicSection;
}

TEST_P(EveryModule, IsGoneAfterItsLibraryIsClosed) {
  LoadedModule module(path_);
  module.activeVersion();
  module.progress();

  module.unload();

  EXPECT_EQ(::dlopen(path_.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
}

TEST_P(EveryModule, StartsWithoutFirmwareAndWithoutProgress) {
  const LoadedModule module(path_);

  EXPECT_EQ(module.activeVersion(), "0.0.0");
  EXPECT_EQ(module.progress(), 0u);
  EXPECT_EQ(module.need("0.0.1"), 1);
  EXPECT_EQ(module.need("0000"), 0);
}

TEST_P(EveryModule, RefusesNullPlaces) {
  const LoadedModule module(path_);
  char data[] = "";
  int need = 0;

  EXPECT_EQ(module.setContext(nullptr, CALLER_DEBUG, data), -EINVAL);
  EXPECT_EQ(module.find<decltype(getEMPID)>("getEMPID")(nullptr), -EINVAL);
  EXPECT_EQ(module.find<decltype(getActiveVersion)>("getActiveVersion")(nullptr), -EINVAL);
  EXPECT_EQ(module.find<decltype(checkVersion)>("checkVersion")("1", nullptr), -EINVAL);
  EXPECT_EQ(module.find<decltype(checkVersion)>("checkVersion")(nullptr, &need), -EINVAL);
  EXPECT_EQ(module.find<decltype(getExpectedTime)>("getExpectedTime")(nullptr), -EINVAL);
  EXPECT_EQ(module.find<decltype(getUpdateProgress)>("getUpdateProgress")(nullptr), -EINVAL);
}

TEST_P(EveryModule, TakesAContextWithoutData) {
  const LoadedModule module(path_);

  EXPECT_EQ(module.setContext("libx", CALLER_QUERY, nullptr), 0);
}

TEST_P(EveryModule, LeavesItsResultInErrnoAsWell) {
  const LoadedModule module(path_);
  module.need("1.0.0");
  errno = 0;

  const int result = module.find<decltype(doUpdate)>("doUpdate")("/no/such/image", 0);

  EXPECT_EQ(result, -ENOENT);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(ModuleTest, ReportsThePackageIdentifierOfEachComponent) {
  EXPECT_EQ(LoadedModule(modulePath("libtuner.so")).empId(), "tunerempfw");
  EXPECT_EQ(LoadedModule(modulePath("libpanel.so")).empId(), "panelempfw");
  EXPECT_EQ(LoadedModule(modulePath("libwifi.so")).empId(), "wifiempfw");
  EXPECT_EQ(LoadedModule(modulePath("libEXT-remote.so")).empId(), "");
}

TEST_F(ModuleTest, ShipsFourModules) {
  Names libraries;

  for (const auto& entry : std::filesystem::directory_iterator(modulePath(""))) {
    if (entry.path().extension() == ".so") {
      libraries.insert(entry.path().filename());
    }
  }

  EXPECT_EQ(libraries, (Names{"libtuner.so", "libpanel.so", "libwifi.so", "libEXT-remote.so"}));
}

}  // namespace
