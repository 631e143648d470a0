// SPDX-License-Identifier: Apache-2.0
// Projects of new modules, in a directory of the test's own.
#include "project.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "limited-resource.h"
#include "outcome.h"

namespace {

namespace fs = std::filesystem;
using fwmodule::findLanguage;
using fwmodule::parseModuleName;
using fwmodule::writeProject;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

std::string contentOf(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class NewModuleProject : public ::testing::Test {
 protected:
  NewModuleProject() {
    char name[] = "/tmp/new-module-XXXXXX";
    directory_ = mkdtemp(name);
  }
  ~NewModuleProject() override { fs::remove_all(directory_); }

  std::vector<std::string> write(const char* library, const char* language) const {
    return writeProject(directory_ / "project", parseModuleName(library), *findLanguage(language));
  }

  fs::path directory_;
};

TEST_F(NewModuleProject, HasTheFilesOfItsLanguage) {
  EXPECT_THAT(write("libdoor", "c++"),
              ElementsAre("CMakeLists.txt", "README.md", "exports.map", "update-on-a-device", "component.h",
                          "component.cpp", "reason.h", "module.cpp"));
  fs::remove_all(directory_ / "project");
  EXPECT_THAT(write("libEXT-door", "c"), Contains("module.c"));
}

TEST_F(NewModuleProject, FillsEveryPlaceIn) {
  for (const char* library : {"libdoor", "libEXT-door"}) {
    for (const char* language : {"c", "c++"}) {
      for (const std::string& file : write(library, language)) {
        EXPECT_THAT(contentOf(directory_ / "project" / file), Not(::testing::ContainsRegex("@[A-Z_]+@")))
            << library << " " << language << " " << file;
      }
      fs::remove_all(directory_ / "project");
    }
  }
}

TEST_F(NewModuleProject, NamesTheModuleAndItsFirmware) {
  write("libdoor", "c");

  EXPECT_THAT(contentOf(directory_ / "project/CMakeLists.txt"), HasSubstr("libdoor"));
  EXPECT_THAT(contentOf(directory_ / "project/module.c"), HasSubstr("doorempfw"));
}

TEST_F(NewModuleProject, MakesOnlyTheScriptExecutable) {
  write("libdoor", "c");

  for (const auto& file : fs::directory_iterator(directory_ / "project")) {
    const bool executable = (file.status().permissions() & fs::perms::owner_exec) != fs::perms::none;
    EXPECT_EQ(executable, file.path().filename() == "update-on-a-device") << file;
  }
}

TEST_F(NewModuleProject, TakesAnEmptyDirectoryAndOverwritesNothing) {
  fs::create_directory(directory_ / "project");
  write("libdoor", "c");
  const std::string before = contentOf(directory_ / "project/module.c");

  EXPECT_THROW(write("libgate", "c"), fwmodule::Failure);

  EXPECT_EQ(contentOf(directory_ / "project/module.c"), before);
}

// A file limit of one byte stands in for a full disk.
TEST_F(NewModuleProject, LeavesNothingWhenAFileCannotBeWritten) {
  const auto write = [this] { this->write("libdoor", "c"); };
  {
    const LimitedResource full = LimitedResource::fileSize(1);
    EXPECT_THROW(write(), std::system_error);
  }

  EXPECT_FALSE(fs::exists(directory_ / "project"));
}

TEST_F(NewModuleProject, LeavesAnEmptyDirectoryWhereItWas) {
  fs::create_directory(directory_ / "project");
  {
    const LimitedResource full = LimitedResource::fileSize(1);
    EXPECT_THROW(write("libdoor", "c"), std::system_error);
  }

  EXPECT_TRUE(fs::is_empty(directory_ / "project"));
}

TEST(Languages, AreFoundByTheirNameAlone) {
  EXPECT_STREQ(findLanguage("c")->suffix, "c");
  EXPECT_STREQ(findLanguage("c++")->suffix, "cpp");
  EXPECT_EQ(findLanguage("ada"), nullptr);
  EXPECT_EQ(findLanguage(""), nullptr);
}

}  // namespace
