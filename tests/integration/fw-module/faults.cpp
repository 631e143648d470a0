// SPDX-License-Identifier: Apache-2.0
// Modules with one fault each: that fault is found, at the right entry point, and
// nothing else. And modules without a fault.
#include <algorithm>
#include <cctype>
#include <iterator>
#include <ostream>

#include "checks.h"
#include "fw-module-test.h"
#include "thoroughness.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

struct Fault {
  const char* module;      // of the faulty ones
  const char* check;       // that finds it
  const char* entryPoint;  // that has it
  const char* copiedTo = nullptr;
};

constexpr Fault kFaults[] = {
    // The file.
    {"sound", "name", "", "sound.so.1"},
    {"sound-extension", "ext-case", "", "libnext-door.so"},
    {"missing-entry-point", "entry-points", "checkVersion"},
    {"mangled-entry-point", "entry-points", "checkVersion"},
    {"data-entry-point", "entry-point-kind", "getUpdateProgress"},
    {"other-exports", "exports", ""},
    {"linked-library", "needed", ""},
    {"undefined-symbol", "loads", "loading"},
    // Anywhere.
    {"crash-in-update", "crash", "doUpdate"},
    {"crash-on-empty-version", "crash", "checkVersion"},
    {"crash-on-long-version", "crash", "checkVersion"},
    {"crash-by-recursion", "crash", "getActiveVersion"},
    {"crash-while-loading", "crash", "loading"},
    {"crash-at-the-end", "crash", "unloading"},
    {"hang-in-update", "hang", "doUpdate"},
    {"hang-in-context", "hang", "setContext"},
    {"hang-at-the-end", "hang", "unloading"},
    {"exception", "exception", "checkVersion"},
    {"exception-of-another-kind", "exception", "checkVersion"},
    {"exit-in-update", "exit", "doUpdate"},
    {"long-text", "overrun", "getActiveVersion"},
    {"identifier-without-room", "overrun", "getEMPID"},
    {"number-before-its-place", "overrun", "getExpectedTime"},
    {"wide-answer", "overrun", "checkVersion"},
    {"written-text", "overrun", "checkVersion"},
    {"write-before-the-beginning", "overrun", "getActiveVersion"},
    {"read-beyond-the-data", "overrun", "doUpdate_decryption"},
    {"kept-text", "text-kept", "getActiveVersion"},
    {"leaked-descriptor", "descriptors", "getActiveVersion"},
    {"leaked-descriptor-after-a-failure", "descriptors", "doUpdate"},
    {"leaked-descriptor-after-a-success", "descriptors", "doUpdate"},
    {"leaked-thread", "threads", "doUpdate"},
    {"left-process", "processes", ""},
    {"printing", "prints", ""},
    // Identity.
    {"refused-context", "context", "setContext"},
    {"identifier-without-end", "text-end", "getEMPID"},
    {"version-without-end", "text-end", "getActiveVersion"},
    {"identifier-without-emp", "identifier", "getEMPID"},
    {"identifier-upper-case", "identifier", "getEMPID"},
    {"identifier-underscore", "identifier", "getEMPID"},
    {"identifier-emp-alone", "identifier", "getEMPID"},
    {"unwritten-identifier", "identifier", "getEMPID"},
    {"sound-extension", "identifier", "getEMPID", "sound.so"},
    {"sound", "ext-identifier", "getEMPID", "libEXT-sound.so"},
    {"no-version", "active-version", "getActiveVersion"},
    {"unwritten-version", "active-version", "getActiveVersion"},
    {"changing-answer", "same-answer", "getExpectedTime"},
    {"answer-that-several-threads-mix", "same-answer", "getActiveVersion"},
    // Versions.
    {"unwritten-need", "need", "checkVersion"},
    {"need-of-two", "need-value", "checkVersion"},
    {"never-needed", "version-newer", "checkVersion"},
    {"equal-version", "version-equal", "checkVersion"},
    {"first-version-needed", "version-equal", "checkVersion"},
    {"version-needed-again", "version-equal", "checkVersion"},
    {"older-version", "version-older", "checkVersion"},
    {"empty-version", "version-empty", "checkVersion"},
    {"nonsense-version", "version-nonsense", "checkVersion"},
    // Updates.
    {"failing-update", "update", "doUpdate"},
    {"failing-second-update", "update", "doUpdate"},
    {"update-that-does-nothing", "update-version", "getActiveVersion"},
    {"version-asked-last", "image-version", "doUpdate"},
    {"no-expected-time", "expected-time", "getExpectedTime"},
    {"packages-without-expected-time", "expected-time", "getExpectedTime"},
    {"expected-time-in-milliseconds", "expected-time-long", "getExpectedTime"},
    {"progress-above-100", "progress-range", "getUpdateProgress"},
    {"falling-progress", "progress-falls", "getUpdateProgress"},
    {"waiting-query", "query-waits", "getUpdateProgress"},
    {"missing-image", "image-missing", "doUpdate"},
    {"empty-image", "image-empty", "doUpdate"},
    {"empty-package", "image-empty", "doUpdate_decryption"},
    {"corrupt-image", "image-corrupt", "doUpdate"},
    {"full-disk", "full-disk", "doUpdate"},
    {"lost-old-firmware", "old-firmware", "doUpdate"},
    {"plain-minus-one", "result-code", "doUpdate"},
    {"silent-failure", "reason", "doUpdate"},
    {"reason-under-another-name", "reason", "doUpdate"},
    {"silent-empty-package", "reason", "doUpdate_decryption"},
    {"failing-package", "decryption", "doUpdate_decryption"},
    {"failing-end", "all-done", "allUpdateDone"},
};

// What hangs costs the limit; nothing else takes as long.
std::vector<std::string> checkCommand(const std::string& file) {
  const char* const limit = thoroughness::kUnderASanitizer ? "15" : "5";
  return {"check", file, "--timeout", limit, "--keep", FW_BINARY_DIRECTORY};
}

void PrintTo(const Fault& fault, std::ostream* stream) {
  *stream << fault.module << ": " << fault.check;
}

class EveryFault : public FwModuleTest, public testing::WithParamInterface<Fault> {};

std::string testName(const testing::TestParamInfo<Fault>& info) {
  const std::string words = info.param.copiedTo != nullptr
                                ? std::string(info.param.module) + "-as-" + info.param.copiedTo
                                : info.param.module;
  std::string name;
  for (const char c : words) {
    if (std::isalnum(static_cast<unsigned char>(c)) != 0) {
      name += c;
    } else {
      name += '_';
    }
  }
  return name;
}

// How each is found is the same in every build. The thread sanitizer looks at fw-module's own
// threads, and each run of it has the same ones.
std::vector<Fault> faults() {
#if defined(__SANITIZE_THREAD__)
  constexpr std::size_t kStep = 4;
#else
  constexpr std::size_t kStep = 1;
#endif
  std::vector<Fault> chosen;
  for (std::size_t i = 0; i < std::size(kFaults); i += kStep) {
    chosen.push_back(kFaults[i]);
  }
  return chosen;
}

INSTANTIATE_TEST_SUITE_P(Module, EveryFault, testing::ValuesIn(faults()), testName);

TEST_P(EveryFault, IsFoundAndNothingElse) {
  const Fault& fault = GetParam();
  const std::string module = std::string(fault.module) + ".so";
  const std::string file = copyOf(module, fault.copiedTo != nullptr ? fault.copiedTo : module);

  const Json::Value report = document(checkCommand(file));

  ASSERT_THAT(findingsOf(report), ElementsAre(fault.check)) << report["findings"].toStyledString();
  const Json::Value& finding = report["findings"][0];
  EXPECT_EQ(finding["entryPoint"].asString(), fault.entryPoint) << finding["message"];
  EXPECT_EQ(report["exitCode"].asInt(), finding["severity"] == "error" ? 1 : 3);
  EXPECT_FALSE(finding["advice"].asString().empty());
}

TEST(Faults, CoverEveryCheck) {
  // A file that is no library, and the power cut, are tests of their own.
  std::set<std::string> missing;
  for (const fwmodule::CheckInfo& check : fwmodule::kChecks) {
    missing.insert(check.id);
  }

  for (const Fault& fault : kFaults) {
    missing.erase(fault.check);
  }

  EXPECT_THAT(missing, ElementsAre("library", "power-cut"));
}

class SoundModule : public FwModuleTest, public testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(Module, SoundModule,
                         testing::Values("sound.so", "whole-progress-at-rest.so", "refused-progress.so",
                                         "libtuner.so", "libpanel.so", "libwifi.so", "libEXT-remote.so",
                                         "libminimal.so"),
                         [](const auto& module) {
                           std::string name = module.param;
                           name = name.substr(0, name.find('.'));
                           name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
                           return name;
                         });

TEST_P(SoundModule, HasNoFindings) {
  const Json::Value report = document(checkCommand(copyOf(GetParam(), GetParam())));

  EXPECT_THAT(findingsOf(report), IsEmpty()) << report["findings"].toStyledString();
  EXPECT_EQ(report["exitCode"].asInt(), 0);
}

// All but what is for EXT- modules only: a check that is quietly left out finds nothing.
TEST_F(FwModuleTest, MakesEveryCheckOfAnOrdinaryModule) {
  const Json::Value report = document(checkCommand(copyOf("sound.so", "sound.so")));

  for (const fwmodule::CheckInfo& check : fwmodule::kChecks) {
    const bool leftOut = check.check == fwmodule::Check::ExtensionIdentifier ||
                         check.check == fwmodule::Check::PowerCut;  // made when it is asked for
    EXPECT_EQ(resultOf(report, check.id), leftOut ? "not-checked" : "passed") << check.id;
  }
}

// Whether it can be updated or not.
TEST_F(FwModuleTest, SaysThatAModuleTellsNoProgress) {
  for (const char* module : {"libminimal.so", "never-needed-without-progress.so"}) {
    const Json::Value report = document(checkCommand(copyOf(module, module)));

    EXPECT_EQ(resultOf(report, "progress-range"), "not-checked") << module;
    EXPECT_EQ(reasonOf(report, "progress-range"), "it does not export getUpdateProgress") << module;
  }
}

TEST_F(FwModuleTest, BelievesNoProgressThatAModuleRefusesToTell) {
  const Json::Value report = document(checkCommand(copyOf("refused-progress.so", "refused-progress.so")));

  EXPECT_EQ(resultOf(report, "progress-falls"), "not-checked");
  EXPECT_EQ(reasonOf(report, "progress-falls"), "it told no progress while the update ran");
}

TEST_F(FwModuleTest, NamesFiveSymbolsAndCountsTheRest) {
  const Json::Value report = document(checkCommand(copyOf("many-exports.so", "x.so")));

  ASSERT_THAT(findingsOf(report), ElementsAre("exports"));
  EXPECT_THAT(report["findings"][0]["message"].asString(),
              MatchesRegex("It also exports (extra[1-7], ){4}extra[1-7] and 2 more\\."));
}

TEST_F(FwModuleTest, TakesAnEmptyFileForNoImage) {
  const std::string image = std::string(kWork) + "empty.bin";
  writeFile(image, "");

  const ProgramResult result =
      run({"check", copyOf("sound.so", "sound.so"), "--image", image, "--version", "2.0"});

  EXPECT_EQ(result.exitCode, 4) << result.output;
  EXPECT_EQ(result.error, "fw-module: " + image + " is no image: it is empty or larger than 2 GiB\n");
}

TEST_F(FwModuleTest, KeepsNothingThatIsNotThere) {
  const ProgramResult result = run({"check", copyOf("sound.so", "sound.so"), "--keep", "/nowhere"});

  EXPECT_EQ(result.exitCode, 4) << result.output;
  EXPECT_EQ(result.error, "fw-module: --keep /nowhere: there is no such path\n");
  EXPECT_EQ(result.output, "");
}

}  // namespace
