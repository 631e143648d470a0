// SPDX-License-Identifier: Apache-2.0
// fw-module new: names, files and what is never overwritten.
#include <filesystem>

#include "fw-module-test.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

namespace fs = std::filesystem;

class NewProject : public FwModuleTest {
 protected:
  static std::set<std::string> filesIn(const std::string& directory) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(kWork + directory)) {
      names.insert(entry.path().filename());
    }
    return names;
  }
  static std::string read(const std::string& name) { return readFile(kWork + name); }
};

TEST_F(NewProject, IsWrittenInEitherLanguage) {
  EXPECT_EQ(run({"new", "libdoor"}).exitCode, 0);
  EXPECT_EQ(run({"new", "libdoor", "--language", "c", "--directory", "below/c"}).exitCode, 0);

  EXPECT_THAT(filesIn("libdoor"), ElementsAre("CMakeLists.txt", "README.md", "component.cpp", "component.h",
                                              "exports.map", "module.cpp", "reason.h", "update-on-a-device"));
  EXPECT_THAT(filesIn("below/c"), ElementsAre("CMakeLists.txt", "README.md", "component.c", "component.h",
                                              "exports.map", "module.c", "reason.h", "update-on-a-device"));
}

TEST_F(NewProject, IsNamedFileByFileWithWhatToDoNext) {
  EXPECT_EQ(run({"new", "libdoor", "--directory", "below/door"}).output,
            "written  below/door/CMakeLists.txt\n"
            "written  below/door/README.md\n"
            "written  below/door/exports.map\n"
            "written  below/door/update-on-a-device\n"
            "written  below/door/component.h\n"
            "written  below/door/component.cpp\n"
            "written  below/door/reason.h\n"
            "written  below/door/module.cpp\n"
            "next     cmake -S below/door -B below/door/build\n"
            "         cmake --build below/door/build\n"
            "         ctest --test-dir below/door/build\n");
}

TEST_F(NewProject, HasEveryNameFilledIn) {
  for (const char* const name : {"libdoor", "libEXT-door"}) {
    ASSERT_EQ(run({"new", name}).exitCode, 0);
    for (const std::string& file : filesIn(name)) {
      EXPECT_THAT(read(std::string(name) + "/" + file), Not(::testing::ContainsRegex("@[A-Z_]+@"))) << file;
    }
  }
  EXPECT_THAT(read("libdoor/module.cpp"), HasSubstr("\"doorempfw\""));
  EXPECT_THAT(read("libdoor/component.cpp"), HasSubstr("/doorfw.firmware\""));
  EXPECT_THAT(read("libEXT-door/module.cpp"), HasSubstr("/lib/firmware/ext/doorfw/doorfw.bin"));
}

TEST_F(NewProject, NeverOverwritesAnything) {
  writeFile(std::string(kWork) + "libdoor/precious", "x");
  writeFile(std::string(kWork) + "a-file", "y");

  const ProgramResult directory = run({"new", "libdoor"});
  const ProgramResult file = run({"new", "libdoor", "--directory", "a-file"});

  EXPECT_EQ(directory.exitCode, 4);
  EXPECT_THAT(directory.error, HasSubstr("libdoor is not empty, and nothing is overwritten"));
  EXPECT_THAT(filesIn("libdoor"), ElementsAre("precious"));
  EXPECT_EQ(file.exitCode, 4);
  EXPECT_EQ(read("a-file"), "y");
}

TEST_F(NewProject, TakesAnEmptyDirectory) {
  fs::create_directory(std::string(kWork) + "empty");

  EXPECT_EQ(run({"new", "libdoor", "--directory", "empty"}).exitCode, 0);

  EXPECT_EQ(filesIn("empty").count("module.cpp"), 1U);
}

TEST_F(NewProject, LeavesNothingWhenItCannotBeWritten) {
  fs::create_directory(std::string(kWork) + "small");
  const std::string script =
      "mount -t tmpfs -o size=8k none small && { \"$@\"; code=$?; ls small; exit $code; }";

  const ProgramResult result = runProgram({{"unshare", "--mount", "sh", "-c", script, "sh", FW_MODULE_PROGRAM,
                                            "new", "libdoor", "--directory", "small/libdoor"},
                                           kWork,
                                           0,
                                           {}});

  EXPECT_EQ(result.exitCode, 4) << result.error;
  EXPECT_THAT(result.error, HasSubstr("No space left on device"));
  EXPECT_EQ(result.output, "");
}

TEST_F(NewProject, SaysWhatIsWrongWithAName) {
  const struct {
    std::string name;
    const char* sentence;
  } names[] = {
      {"libdoor.so", "leave out \".so\": libdoor"},
      {"", "begins with a letter"},
      {"9door", "begins with a letter"},
      {"lib door", "only letters, digits"},
      {"lib/door", "only letters, digits"},
      {"libd\xc3\xb6r", "only letters, digits"},
      {"lib", "must go on with the component's"},
      {"libEXT-", "must go on with the component's"},
      {"libext-door", "write it in capitals at the beginning"},
      {"libnext-door", "write it in capitals at the beginning"},
      {"libdoor-EXT-x", "write it in capitals at the beginning"},
      {std::string(101, 'x'), "at most 100 characters"},
  };
  for (const auto& one : names) {
    const ProgramResult result = run({"new", one.name});

    EXPECT_EQ(result.exitCode, 2) << one.name;
    EXPECT_THAT(result.error, HasSubstr(one.sentence)) << one.name;
  }
  EXPECT_TRUE(fs::is_empty(kWork));
}

}  // namespace
