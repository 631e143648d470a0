// SPDX-License-Identifier: Apache-2.0
// What the command prints and answers: text, JSON, JUnit, help and usage errors.
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "checks.h"
#include "fw-module-test.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

namespace fs = std::filesystem;

constexpr std::size_t kColumns = 80;
constexpr int kLines = 24;

class CheckOutput : public FwModuleTest {
 protected:
  static std::string junitOf(const std::string& module) {
    run({"check", copyOf(module, module), "--junit", "results.xml"});
    return readFile(std::string(kWork) + "results.xml");
  }
};

TEST_F(CheckOutput, SaysWhatWasFoundAndWhatToDo) {
  const ProgramResult result = run({"check", copyOf("plain-minus-one.so", "x.so")});

  EXPECT_EQ(result.exitCode, 3);
  EXPECT_THAT(result.output,
              HasSubstr("x: a module for the firmware soundfw, version 0.0.0 on a new device\n"));
  EXPECT_THAT(result.output, HasSubstr("\nok           crash "));
  EXPECT_THAT(result.output, HasSubstr("\nwarning      result-code "));
  EXPECT_THAT(result.output, HasSubstr("\nwarning result-code\n  doUpdate answered -1 for a failed update.\n"
                                       "  What to do: Answer a negative errno value other than -1"));
  EXPECT_THAT(result.output, HasSubstr("49 checks: 46 passed, 0 errors, 1 warning, 2 not checked\n"));
  EXPECT_THAT(result.output, Not(HasSubstr("\x1b")));
  EXPECT_EQ(result.error, "");
}

TEST_F(CheckOutput, NamesTheEntryPointTheSignalAndTheSituationOfACrash) {
  const Json::Value report = document({"check", copyOf("crash-on-empty-version.so", "x.so")});

  EXPECT_EQ(report["findings"][0]["message"], "checkVersion crashed (Aborted) given an empty version.");
}

TEST_F(CheckOutput, NamesTheTimeOfAHang) {
  const Json::Value report = document({"check", copyOf("hang-in-update.so", "x.so"), "--timeout", "1"});

  const Json::Value& last = report["findings"][report["findings"].size() - 1];
  EXPECT_EQ(last["check"], "hang");
  EXPECT_THAT(last["message"].asString(), HasSubstr("did not return within 1 second"));
}

TEST_F(CheckOutput, SaysWhatWasNotCheckedAndWhy) {
  const Json::Value report = document({"check", copyOf("failing-update.so", "x.so")});

  EXPECT_EQ(resultOf(report, "image-corrupt"), "not-checked");
  for (const Json::Value& check : report["checks"]) {
    EXPECT_EQ(check["result"] == "not-checked", check.isMember("reason")) << check;
  }
}

TEST_F(CheckOutput, HasAJUnitCaseForEveryCheck) {
  const std::string report = junitOf("crash-in-update.so");

  EXPECT_THAT(report, HasSubstr("name=\"fw-module check crash-in-update\" tests=\"49\" failures=\"1\""));
  for (const fwmodule::CheckInfo& check : fwmodule::kChecks) {
    EXPECT_THAT(report, HasSubstr("name=\"" + std::string(check.id) + "\">"));
  }
  EXPECT_THAT(report, HasSubstr("<failure type=\"error\" message=\"doUpdate crashed (Segmentation fault) "
                                "with a good image.\">Run it in a debugger"));
  EXPECT_THAT(report, HasSubstr("<skipped message=\"doUpdate crashed"));
}

TEST_F(CheckOutput, SaysWhenTheJUnitFileCannotBeWritten) {
  const std::string module = copyOf("sound.so", "sound.so");

  const ProgramResult written = run({"check", module, "--junit", "results.xml"});
  const ProgramResult full = run({"check", module, "--junit", "/dev/full"});

  EXPECT_EQ(written.exitCode, 0) << written.error;
  EXPECT_EQ(full.error, "fw-module: /dev/full cannot be written: No space left on device\n");
  EXPECT_EQ(full.output, "");
  EXPECT_NE(full.exitCode, 0);
}

TEST_F(CheckOutput, QuotesWhatXmlWouldMisread) {
  const std::string report = junitOf("nonsense-version.so");

  EXPECT_THAT(report, HasSubstr("checkVersion wrote 1 for &quot;not-a-version&quot;."));
}

TEST_F(CheckOutput, RefusesFilesThatAreNoLibraryForThisMachine) {
  std::string otherProcessor = readFile(copyOf("sound.so", "sound.so"));
  otherProcessor[18] = '\x02';  // e_machine
  const std::string whole = readFile(std::string(kWork) + "sound.so");
  const struct {
    const char* name;
    std::string content;
    const char* message;
  } files[] = {
      {"text.so", "no library\n", "It is no ELF file."},
      {"empty.so", "", "It is no ELF file."},
      {"other.so", otherProcessor, "It is built for another processor; this fw-module is for "},
      {"cut-off.so", whole.substr(0, whole.size() / 2), "The file is cut off or damaged."},
      {"head.so", whole.substr(0, 20), "The file is cut off or damaged."},
  };
  for (const auto& file : files) {
    writeFile(std::string(kWork) + file.name, file.content);

    const Json::Value report = document({"check", file.name});

    EXPECT_THAT(findingsOf(report), ElementsAre("library")) << file.name;
    EXPECT_THAT(report["findings"][0]["message"].asString(), HasSubstr(file.message));
    EXPECT_EQ(resultOf(report, "crash"), "not-checked") << file.name;
  }
}

TEST_F(CheckOutput, SaysThatAFileCannotBeRead) {
  const ProgramResult missing = run({"check", "missing.so"});
  const ProgramResult directory = run({"check", kWork});

  EXPECT_EQ(missing.exitCode, 4);
  EXPECT_THAT(missing.error, HasSubstr("missing.so cannot be read: No such file or directory"));
  EXPECT_EQ(directory.exitCode, 4);
  EXPECT_THAT(directory.error, HasSubstr("it is a directory"));
}

TEST_F(CheckOutput, NeitherWaitsForAFifoNorReadsADevice) {
  const std::string fifo = std::string(kWork) + "fifo.so";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::string file = copyOf("sound.so", "sound.so");

  for (const std::string& path : {fifo, std::string("/dev/zero")}) {
    const ProgramResult module = run({"check", path});
    const ProgramResult image = run({"check", file, "--image", path, "--version", "1"});

    EXPECT_EQ(module.exitCode, 4);
    EXPECT_THAT(module.error, HasSubstr(path + " cannot be read: it is no regular file"));
    EXPECT_EQ(image.exitCode, 4);
    EXPECT_THAT(image.error, HasSubstr(path + " cannot be read: it is no regular file"));
  }
}

TEST_F(CheckOutput, SaysThatThereCanBeNoDevice) {
  // Root finds the kernel's settings protected on its device, and another view of them.
  std::filesystem::create_directory("/tmp/proc");
  const bool other = mount("proc", "/tmp/proc", "proc", 0, nullptr) == 0;
  const std::string settings = other ? "/tmp/proc/sys" : "/proc/sys";
  const std::string refusing = "echo 0 > " + settings + "/user/max_mnt_namespaces && exec \"$@\"";
  const std::string file = copyOf("sound.so", "sound.so");

  const ProgramResult result = runProgram(
      {{"unshare", "--user", "--map-root-user", "sh", "-c", refusing, "sh", FW_MODULE_PROGRAM, "check", file},
       kWork,
       0,
       {}});

  EXPECT_EQ(result.exitCode, 4) << result.output;
  EXPECT_THAT(result.error, HasSubstr("run as root, or allow user namespaces"));
  umount("/tmp/proc");
}

// The image reaches the module as it is, and its version is the one that is asked for.
TEST_F(CheckOutput, TriesTheCallersImage) {
  writeFile(std::string(kWork) + "good.bin", std::string(5000, 'g'));
  const std::string file = copyOf("sound.so", "sound.so");

  const Json::Value report = document({"check", file, "--image", "good.bin", "--version", "7.1"});

  EXPECT_THAT(findingsOf(report), ::testing::IsEmpty()) << report["findings"];
  EXPECT_EQ(resultOf(report, "full-disk"), "passed");
}

TEST_F(CheckOutput, TouchesNothingOfTheHost) {
  const std::string file = copyOf("sound.so", "sound.so");
  const std::string mounts = readFile("/proc/self/mounts");

  run({"check", file});

  EXPECT_EQ(readFile("/proc/self/mounts"), mounts);
  EXPECT_TRUE(fs::is_empty("/var/lib/fw-components"));
  EXPECT_TRUE(fs::is_empty("/prd/usr/fwupdate/controls"));
  EXPECT_TRUE(fs::is_empty("/lib/firmware/ext"));
  const auto entries = fs::directory_iterator(kWork);
  EXPECT_EQ(std::distance(entries, fs::directory_iterator()), 1);
}

TEST_F(CheckOutput, ListsTheChecksWithoutAFile) {
  const ProgramResult text = run({"check", "--list"});
  const Json::Value list = document({"check", "--list"});

  EXPECT_EQ(text.exitCode, 0);
  EXPECT_EQ(std::count(text.output.begin(), text.output.end(), '\n'),
            1 + static_cast<long>(fwmodule::kCheckCount));
  EXPECT_EQ(list["checks"].size(), fwmodule::kCheckCount);
}

TEST_F(FwModuleTest, ShowsHelpThatFitsAScreenAndGivesAnExample) {
  for (const std::string command : {"", "new", "check"}) {
    const ProgramResult result = command.empty() ? run({"--help"}) : run({command, "--help"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_LE(std::count(result.output.begin(), result.output.end(), '\n'), kLines) << command;
    EXPECT_THAT(result.output, HasSubstr("Example: fw-module " + command));
    std::istringstream lines(result.output);
    for (std::string line; std::getline(lines, line);) {
      EXPECT_LE(line.size(), kColumns) << line;
    }
  }
}

TEST_F(FwModuleTest, ExplainsUsageErrors) {
  const struct {
    std::vector<std::string> arguments;
    const char* sentence;
  } misuses[] = {
      {{}, "required"},
      {{"frob"}, "there is no command frob"},
      {{"new"}, "NAME is required"},
      {{"new", "libdoor", "--language", "ada"}, "the languages are c++ and c, not ada"},
      {{"check"}, "which module?"},
      {{"check", "x.so", "--timeout", "0"}, "--timeout"},
      {{"check", "x.so", "--image", "x.bin"}, "--image needs the image's --version"},
      {{"check", "x.so", "--list"}, "--list"},
      {{"check", "x.so", "--frob"}, "--frob"},
  };
  for (const auto& misuse : misuses) {
    const ProgramResult result = run(misuse.arguments);

    EXPECT_EQ(result.exitCode, 2) << misuse.sentence;
    EXPECT_THAT(result.error, HasSubstr(misuse.sentence));
    EXPECT_THAT(result.error, HasSubstr("--help"));
    EXPECT_EQ(result.output, "");
  }
}

TEST_F(FwModuleTest, ExplainsUsageErrorsInJsonToo) {
  const Json::Value report = document({"new", "9lives"});

  EXPECT_EQ(report["outcome"], "usage");
  EXPECT_THAT(report["message"].asString(), HasSubstr("begins with a letter"));
}

}  // namespace
