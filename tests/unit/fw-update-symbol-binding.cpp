// SPDX-License-Identifier: Apache-2.0
// Binding of a module: loadSymbol, the identifier checks and the wrappers.
#include <dlfcn.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <thread>

#include "library-test.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class ModuleBinding : public LibraryTest {};

std::string dlsymError(const std::string& stem, const std::string& name) {
  return "Error: dlsym error: " + std::string(kControls) + stem + ".so: undefined symbol: " + name + "\n";
}

}  // namespace

TEST_F(ModuleBinding, StartsUnboundWithEveryFieldEmpty) {
  FWUpdateSymbol symbol("libabc");

  EXPECT_EQ(symbol.getLibName(), "libabc");
  EXPECT_EQ(symbol.getEMPName(), "");
  EXPECT_EQ(symbol.getFirmwareName(), "");
  EXPECT_EQ(symbol.getSymbolType(), 0);
  EXPECT_FALSE(symbol.getNeedUpdate());
  EXPECT_EQ(symbol.getExpectedUpdateTime(), 0U);
  EXPECT_FALSE(symbol.getIMGExists());
}

TEST_F(ModuleBinding, RaisesBadFunctionCallForRequiredEntryPointsThatAreNotBound) {
  FWUpdateSymbol symbol("libabc");
  char text[128] = {};
  int need = 0;

  EXPECT_THROW(symbol.setContext(CALLER_QUERY, text), std::bad_function_call);
  EXPECT_THROW(symbol.getActiveVersion(text), std::bad_function_call);
  EXPECT_THROW(symbol.checkVersion("1", &need), std::bad_function_call);
  EXPECT_THROW(symbol.doUpdate("path", 0, 0), std::bad_function_call);
  EXPECT_THROW(symbol.runProcess(CALLER_LSM, text), std::bad_function_call);
}

TEST_F(ModuleBinding, AnswersMinusOneForOptionalEntryPointsThatAreNotBound) {
  FWUpdateSymbol symbol("libabc");
  unsigned int progress = 7;
  int seconds = 7;

  EXPECT_EQ(symbol.allUpdateDone(), -1);
  EXPECT_EQ(symbol.doUpdate_decryption(nullptr, 0), -1);
  EXPECT_EQ(symbol.getExpectedTime(&seconds), -1);
  EXPECT_EQ(symbol.getUpdateProgress(&progress), -1);
  EXPECT_EQ(progress, 7U);
}

TEST_F(ModuleBinding, BindsAModuleAndDerivesItsNames) {
  scripted::installModule("libtuner");
  scripted::module("libtuner").empId = "tunerempfw";
  FWUpdateSymbol symbol("libtuner");

  const int result = symbol.loadSymbol("libtuner");

  EXPECT_EQ(result, 0);
  EXPECT_EQ(symbol.getSymbolType(), 0);
  EXPECT_EQ(symbol.getEMPName(), "tunerempfw");
  EXPECT_EQ(symbol.getFirmwareName(), "tunerfw");
  writeFile("/opt/usr/apps/appbinarymanager/tunerempfw.img", "");
  EXPECT_TRUE(symbol.getIMGExists());
  EXPECT_THAT(recording::calls(),
              ElementsAre("libtuner.setContext(\"libtuner\", 2, \"\")", "libtuner.getEMPID()"));
  EXPECT_THAT(recording::messages(), IsEmpty());
}

TEST_F(ModuleBinding, RemovesOnlyTheFirstEmpOfTheIdentifier) {
  scripted::installModule("libabc");
  scripted::module("libabc").empId = "aempbemp";
  FWUpdateSymbol symbol("libabc");

  symbol.loadSymbol("libabc");

  EXPECT_EQ(symbol.getFirmwareName(), "abemp");
  EXPECT_EQ(symbol.getEMPName(), "aempbemp");
}

TEST_F(ModuleBinding, StoresTheNameItWasGiven) {
  scripted::installModule("libabc");
  FWUpdateSymbol symbol("other");

  EXPECT_EQ(symbol.loadSymbol("libabc"), 0);

  EXPECT_EQ(symbol.getLibName(), "libabc");
}

TEST_F(ModuleBinding, RefusesAnEmptyNameSilently) {
  FWUpdateSymbol symbol("libabc");

  EXPECT_EQ(symbol.loadSymbol(""), -1);

  EXPECT_EQ(symbol.getLibName(), "libabc");
  EXPECT_THAT(recording::messages(), IsEmpty());
}

TEST_F(ModuleBinding, RefusesAMissingLibrarySilentlyAndKeepsItsName) {
  FWUpdateSymbol symbol("libabc");

  EXPECT_EQ(symbol.loadSymbol("libmissing"), -1);

  EXPECT_EQ(symbol.getLibName(), "libabc");
  EXPECT_THAT(recording::messages(), IsEmpty());
}

TEST_F(ModuleBinding, ReportsALibraryThatCannotBeOpened) {
  writeFile(std::string(kControls) + "libtext.so", "no library");
  FWUpdateSymbol symbol("libtext");

  EXPECT_EQ(symbol.loadSymbol("libtext"), -1);

  EXPECT_THAT(recording::messages(), ElementsAre("6 fw-update-symbol.cpp loadSymbol Error: dlsym libfile: "
                                                 "/prd/usr/fwupdate/controls/libtext.so error: "
                                                 "/prd/usr/fwupdate/controls/libtext.so: file too short\n"));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("Error: dlsym libfile: %s error: %s\n"));
}

TEST_F(ModuleBinding, ReportsADirectoryInTheLibrarysPlace) {
  std::filesystem::create_directories(std::string(kControls) + "libdir.so");
  FWUpdateSymbol symbol("libdir");

  EXPECT_EQ(symbol.loadSymbol("libdir"), -1);

  ASSERT_EQ(recording::messages().size(), 1U);
  EXPECT_THAT(recording::messages()[0],
              ::testing::StartsWith("6 fw-update-symbol.cpp loadSymbol Error: dlsym libfile: "));
}

TEST_F(ModuleBinding, OpensTheFileThatALinkLeadsTo) {
  scripted::installModule("libreal");
  std::filesystem::create_symlink("libreal.so", std::string(kControls) + "liblink.so");
  FWUpdateSymbol symbol("liblink");

  EXPECT_EQ(symbol.loadSymbol("liblink"), 0);

  EXPECT_EQ(symbol.getLibName(), "liblink");
  EXPECT_THAT(recording::calls(),
              ElementsAre("libreal.setContext(\"liblink\", 2, \"\")", "libreal.getEMPID()"))
      << "the library knows itself by the file that was opened";
}

TEST_F(ModuleBinding, ReportsALinkThatLeadsToNoLibraryUnderItsOwnName) {
  writeFile(std::string(kControls) + "libtext.so", "no library");
  std::filesystem::create_symlink("libtext.so", std::string(kControls) + "liblink.so");
  FWUpdateSymbol symbol("liblink");

  EXPECT_EQ(symbol.loadSymbol("liblink"), -1);

  EXPECT_THAT(recording::texts(),
              ElementsAre("Error: dlsym libfile: /prd/usr/fwupdate/controls/liblink.so "
                          "error: /prd/usr/fwupdate/controls/libtext.so: file too short\n"));
}

TEST_F(ModuleBinding, RefusesALibraryThatCannotBeResolvedAtOnce) {
  scripted::installUnresolvedModule("libabc");
  FWUpdateSymbol symbol("libabc");

  EXPECT_EQ(symbol.loadSymbol("libabc"), -1);

  EXPECT_THAT(recording::texts(),
              ElementsAre("Error: dlsym libfile: /prd/usr/fwupdate/controls/libabc.so error: "
                          "/prd/usr/fwupdate/controls/libabc.so: undefined symbol: scripted_undefined\n"));
}

TEST_F(ModuleBinding, KeepsTheModulesSymbolsToThemselves) {
  const FWUpdateSymbol symbol = bound();

  EXPECT_EQ(dlsym(RTLD_DEFAULT, "getEMPID"), nullptr);
}

class MissingRequiredEntryPoint : public LibraryTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(MissingRequiredEntryPoint, FailsTheBindingWithOneMessage) {
  scripted::installModule("libabc", GetParam());
  FWUpdateSymbol symbol("libabc");

  const int result = symbol.loadSymbol("libabc");

  EXPECT_EQ(result, -1);
  EXPECT_THAT(recording::messages(),
              ElementsAre("6 fw-update-symbol.cpp loadSymbol " + dlsymError("libabc", GetParam())));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("Error: dlsym error: %s\n"));
  EXPECT_THAT(recording::calls(), IsEmpty());
  EXPECT_TRUE(isLoaded("libabc")) << "the library stays open until the record goes";
}

INSTANTIATE_TEST_SUITE_P(ModuleBinding, MissingRequiredEntryPoint,
                         ::testing::Values("setContext", "getEMPID", "getActiveVersion", "checkVersion",
                                           "doUpdate"));

class FirstMissingEntryPoint : public LibraryTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(FirstMissingEntryPoint, IsTheOneThatIsReported) {
  scripted::installModuleUntil("libabc", GetParam());
  FWUpdateSymbol symbol("libabc");

  EXPECT_EQ(symbol.loadSymbol("libabc"), -1);

  EXPECT_THAT(recording::texts(), ElementsAre(dlsymError("libabc", GetParam())));
}

INSTANTIATE_TEST_SUITE_P(ModuleBinding, FirstMissingEntryPoint,
                         ::testing::Values("setContext", "getEMPID", "getActiveVersion", "checkVersion",
                                           "doUpdate"));

TEST_F(ModuleBinding, LooksOptionalEntryPointsUpInOrder) {
  scripted::installModuleUntil("libabc", "allUpdateDone");
  FWUpdateSymbol symbol("libabc");

  EXPECT_EQ(symbol.loadSymbol("libabc"), 0);

  EXPECT_THAT(
      recording::texts(),
      ElementsAre(dlsymError("libabc", "allUpdateDone"), dlsymError("libabc", "doUpdate_decryption"),
                  dlsymError("libabc", "getExpectedTime"), dlsymError("libabc", "getUpdateProgress")));
}

TEST_F(ModuleBinding, KeepsTheEntryPointsBoundBeforeTheMissingOne) {
  scripted::installModule("libabc", "checkVersion");
  FWUpdateSymbol symbol("libabc");
  symbol.loadSymbol("libabc");
  char version[128] = {};
  int need = 0;

  EXPECT_EQ(symbol.getActiveVersion(version), 0);
  EXPECT_THROW(symbol.checkVersion("1", &need), std::bad_function_call);
  EXPECT_THROW(symbol.doUpdate("path", 0, 0), std::bad_function_call);
  EXPECT_EQ(symbol.updateFirmware(CALLER_LSM, version), -1);
}

class MissingOptionalEntryPoint : public LibraryTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(MissingOptionalEntryPoint, IsNotedAtDebugLevelAndBindingGoesOn) {
  scripted::installModule("libabc", GetParam());
  FWUpdateSymbol symbol("libabc");

  const int result = symbol.loadSymbol("libabc");

  EXPECT_EQ(result, 0);
  EXPECT_THAT(recording::messages(),
              ElementsAre("3 fw-update-symbol.cpp loadSymbol " + dlsymError("libabc", GetParam())));
  EXPECT_THAT(recording::traceRecords(), IsEmpty());
  unsigned int progress = 0;
  int seconds = 0;
  const std::string missing = GetParam();
  EXPECT_EQ(symbol.allUpdateDone(), missing == "allUpdateDone" ? -1 : 0);
  EXPECT_EQ(symbol.doUpdate_decryption(nullptr, 0), missing == "doUpdate_decryption" ? -1 : 0);
  EXPECT_EQ(symbol.getExpectedTime(&seconds), missing == "getExpectedTime" ? -1 : 0);
  EXPECT_EQ(symbol.getUpdateProgress(&progress), missing == "getUpdateProgress" ? -1 : 0);
}

INSTANTIATE_TEST_SUITE_P(ModuleBinding, MissingOptionalEntryPoint,
                         ::testing::Values("allUpdateDone", "doUpdate_decryption", "getExpectedTime",
                                           "getUpdateProgress"));

class ExtensionModule : public LibraryTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(ExtensionModule, IsBoundButNeverUpdated) {
  scripted::installModule(GetParam());
  FWUpdateSymbol symbol(GetParam());
  int seconds = 0;
  char version[128] = {};

  const int result = symbol.loadSymbol(GetParam());

  EXPECT_EQ(result, 0);
  EXPECT_EQ(symbol.getSymbolType(), 1);
  EXPECT_EQ(symbol.getFirmwareName(), "");
  EXPECT_FALSE(symbol.getIMGExists());
  EXPECT_EQ(symbol.getExpectedTime(&seconds), -1);
  EXPECT_EQ(symbol.doUpdate_decryption(nullptr, 0), -1);
  EXPECT_EQ(symbol.getActiveVersion(version), 0);
  unsigned int progress = 0;
  EXPECT_EQ(symbol.getUpdateProgress(&progress), 0);
  EXPECT_EQ(symbol.allUpdateDone(), 0);
  EXPECT_THAT(recording::calls(),
              ::testing::Not(::testing::Contains(GetParam() + std::string(".getEMPID()"))));
  EXPECT_THAT(
      recording::messages(),
      ElementsAre(std::string("6 fw-update-symbol.cpp loadSymbol Not Update Symbol [") + GetParam() + "]"));
}

INSTANTIATE_TEST_SUITE_P(ModuleBinding, ExtensionModule,
                         ::testing::Values("libEXT-remote", "libext-remote", "myExt-tuner", "libnext-gen"));

TEST_F(ModuleBinding, ReportsAnEmptyIdentifier) {
  scripted::installModule("libabc");
  bool isZeroed = false;
  scripted::module("libabc").writeEMPID = [&isZeroed](char* out) {
    isZeroed = std::all_of(out, out + 128, [](char c) { return c == '\0'; });
  };
  FWUpdateSymbol symbol("libabc");

  EXPECT_EQ(symbol.loadSymbol("libabc"), -1);

  EXPECT_THAT(recording::messages(),
              ElementsAre("6 fw-update-symbol.cpp getEMPID Error: EMPID is empty.(libabc)"));
  EXPECT_TRUE(isZeroed) << "the module gets a buffer of zeros";
  EXPECT_THAT(recording::traceFormats(), ElementsAre("Error: EMPID is empty.(%s)"));
}

class WrongIdentifier : public LibraryTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(WrongIdentifier, IsReportedWhole) {
  scripted::installModule("libabc");
  scripted::module("libabc").empId = GetParam();
  FWUpdateSymbol symbol("libabc");

  EXPECT_EQ(symbol.loadSymbol("libabc"), -1);

  EXPECT_EQ(symbol.getEMPName(), "");
  EXPECT_THAT(
      recording::messages(),
      ElementsAre(std::string("6 fw-update-symbol.cpp getEMPID Error: use EMPID only English and numbers. ") +
                  GetParam()));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("Error: use EMPID only English and numbers. %s"));
}

INSTANTIATE_TEST_SUITE_P(ModuleBinding, WrongIdentifier,
                         ::testing::Values("emp-01", "emp_01", "emp 01", "emp01\n", "emp\xC3\xA4", "emp.01",
                                           "emp@[`{/:"));

TEST_F(ModuleBinding, RejectsAnIdentifierWithoutLowerCaseEmp) {
  scripted::installModule("libabc");
  scripted::module("libabc").empId = "EMP01";
  FWUpdateSymbol symbol("libabc");

  EXPECT_EQ(symbol.loadSymbol("libabc"), -1);

  EXPECT_EQ(symbol.getEMPName(), "EMP01");
  EXPECT_FALSE(symbol.getIMGExists());
  EXPECT_THAT(recording::messages(),
              ElementsAre("6 fw-update-symbol.cpp loadSymbol Error: EMPID is Wrong (EMP01)"));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("Error: EMPID is Wrong (%s)"));
}

TEST_F(ModuleBinding, HandsOutValidIdentifiers) {
  FWUpdateSymbol symbol = bound();
  for (const char* id : {"emp01", "EMPX", "a1B2"}) {
    scripted::module("libabc").empId = id;
    std::string text = "old";

    EXPECT_EQ(symbol.getEMPID(text), 0);
    EXPECT_EQ(text, id);
  }
}

TEST_F(ModuleBinding, HandsOutAnInvalidIdentifierTogetherWithTheFailure) {
  FWUpdateSymbol symbol = bound();
  scripted::module("libabc").empId = "a b";
  std::string text;

  EXPECT_EQ(symbol.getEMPID(text), -1);

  EXPECT_EQ(text, "a b");
}

TEST_F(ModuleBinding, CutsAnIdentifierWithoutTerminatorAt127Characters) {
  FWUpdateSymbol symbol = bound();
  scripted::module("libabc").writeEMPID = [](char* out) { std::memset(out, 'x', 128); };
  std::string text;

  EXPECT_EQ(symbol.getEMPID(text), 0);

  EXPECT_EQ(text, std::string(127, 'x'));
}

TEST_F(ModuleBinding, CutsAVersionWithoutTerminatorAt127Characters) {
  FWUpdateSymbol symbol = bound();
  scripted::module("libabc").writeActiveVersion = [](char* out) {
    std::memset(out, '9', 128);
    return 0;
  };
  char version[128] = {};

  EXPECT_EQ(symbol.getActiveVersion(version), 0);

  EXPECT_EQ(std::string(version, strnlen(version, 128)), std::string(127, '9'));
}

TEST_F(ModuleBinding, LeavesTheRestOfTheVersionBufferAlone) {
  FWUpdateSymbol symbol = bound();
  char version[128];
  std::memset(version, '#', sizeof(version));

  EXPECT_EQ(symbol.getActiveVersion(version), 0);

  EXPECT_EQ(std::string(version, sizeof(version)), std::string("1.0\0", 4) + std::string(124, '#'));
}

TEST_F(ModuleBinding, TellsTheModuleWhoAsksBeforeAVersionQuery) {
  FWUpdateSymbol symbol = bound();
  scripted::module("libabc").activeVersionResult = 5;
  char version[128] = {};

  EXPECT_EQ(symbol.getActiveVersion(version), 5);

  EXPECT_STREQ(version, "1.0");
  EXPECT_THAT(recording::calls(),
              ElementsAre("libabc.setContext(\"libabc\", 2, \"\")", "libabc.getActiveVersion()"));
}

TEST_F(ModuleBinding, GivesVersionQueriesDataThatTheModuleMayKeep) {
  FWUpdateSymbol symbol = bound();
  char* kept = nullptr;
  scripted::module("libabc").setContext = [&kept](const char*, int, char* data) {
    kept = data;
    return 0;
  };
  char version[128] = {};

  symbol.getActiveVersion(version);
  char* const first = kept;
  std::thread([&] { symbol.getActiveVersion(version); }).join();

  EXPECT_EQ(kept, first) << "on nobody's stack";
  EXPECT_STREQ(kept, "");
}

TEST_F(ModuleBinding, ShowsNoModuleWhatAnotherWroteIntoItsData) {
  FWUpdateSymbol writer = bound("libwriter");
  FWUpdateSymbol reader = bound("libreader");
  scripted::module("libwriter").setContext = [](const char*, int, char* data) {
    EXPECT_STREQ(data, "") << "not what it wrote itself either";
    std::memset(data, 'x', 127);
    return 0;
  };
  std::string seen = "nothing";
  scripted::module("libreader").setContext = [&seen](const char*, int, const char* data) {
    seen = data;
    return 0;
  };
  char version[128] = {};

  writer.getActiveVersion(version);
  writer.getActiveVersion(version);
  reader.getActiveVersion(version);

  EXPECT_EQ(seen, "");
}

TEST_F(ModuleBinding, LeavesAModuleItsDataWhenARecordGoes) {
  scripted::installModule("libabc");
  std::vector<char*> kept;
  scripted::module("libabc").setContext = [&kept](const char*, int, char* data) {
    kept.push_back(data);
    return 0;
  };
  const FWUpdateSymbol staying = bound("libabc");

  { FWUpdateSymbol("libabc").loadSymbol("libabc"); }

  ASSERT_EQ(kept.size(), 2U);
  EXPECT_EQ(kept[0], kept[1]) << "of the module, not of a record";
}

TEST_F(ModuleBinding, ForwardsArgumentsAndResultsOfTheEntryPoints) {
  FWUpdateSymbol symbol = bound();
  scripted::Module& script = scripted::module("libabc");
  script.setContextResult = 11;
  script.checkVersionResult = 12;
  script.need = 3;
  script.doUpdateResult = 13;
  script.allUpdateDoneResult = 14;
  script.doUpdateDecryptionResult = 15;
  script.expectedTimeResult = 16;
  script.expectedTime = 99;
  script.progressResult = 17;
  char data[] = "USB";
  int need = 0;
  int seconds = 0;
  unsigned int progress = 0;

  EXPECT_EQ(symbol.setContext(CALLER_DEBUG, data), 11);
  EXPECT_EQ(symbol.checkVersion("2.0", &need), 12);
  EXPECT_EQ(need, 3);
  EXPECT_EQ(symbol.doUpdate("/a/b.bin", 4000000000UL, 1800), 13);
  EXPECT_EQ(symbol.allUpdateDone(), 14);
  EXPECT_EQ(symbol.doUpdate_decryption(nullptr, 5), 15);
  EXPECT_EQ(symbol.getExpectedTime(&seconds), 16);
  EXPECT_EQ(seconds, 99);
  EXPECT_EQ(symbol.getUpdateProgress(&progress), 17);
  EXPECT_EQ(progress, 42U);
  EXPECT_THAT(
      recording::calls(),
      ElementsAre("libabc.setContext(\"libabc\", 1, \"USB\")", "libabc.checkVersion(\"2.0\", 0)",
                  "libabc.doUpdate(\"/a/b.bin\", 4000000000)", "libabc.allUpdateDone()",
                  "libabc.doUpdate_decryption(5)", "libabc.getExpectedTime()", "libabc.getUpdateProgress()"));
}

TEST_F(ModuleBinding, ClosesTheLibraryWithTheLastCopyOfTheRecord) {
  scripted::installModule("libabc");
  {
    FWUpdateSymbol copy("empty");
    {
      FWUpdateSymbol symbol("libabc");
      symbol.loadSymbol("libabc");
      copy = symbol;
    }
    EXPECT_TRUE(isLoaded("libabc"));
    char version[128] = {};
    EXPECT_EQ(copy.getActiveVersion(version), 0);
  }

  EXPECT_FALSE(isLoaded("libabc"));
}

TEST_F(ModuleBinding, BindsTwiceWithoutLeakingTheLibrary) {
  scripted::installModule("libabc");
  {
    FWUpdateSymbol symbol("libabc");
    EXPECT_EQ(symbol.loadSymbol("libabc"), 0);
    scripted::module("libabc").empId = "newemp";
    EXPECT_EQ(symbol.loadSymbol("libabc"), 0);
    EXPECT_EQ(symbol.getEMPName(), "newemp");
    EXPECT_EQ(symbol.getFirmwareName(), "new");
    char version[128] = {};
    EXPECT_EQ(symbol.getActiveVersion(version), 0);
  }

  EXPECT_FALSE(isLoaded("libabc"));
}

TEST_F(ModuleBinding, LeavesNothingBoundIntoALibraryThatAFailedSecondBindingClosed) {
  scripted::installModule("libabc");
  scripted::installModule("libother", "getActiveVersion");
  FWUpdateSymbol symbol("libabc");
  ASSERT_EQ(symbol.loadSymbol("libabc"), 0);
  writeFile(std::string(kPackages) + "abcemp.img", "");
  char version[128] = {};
  unsigned int progress = 0;

  EXPECT_EQ(symbol.loadSymbol("libother"), -1);

  EXPECT_FALSE(isLoaded("libabc"));
  EXPECT_THROW(symbol.getActiveVersion(version), std::bad_function_call);
  EXPECT_THROW(symbol.doUpdate("path", 0, 0), std::bad_function_call);
  EXPECT_EQ(symbol.getUpdateProgress(&progress), -1);
  recording::reset();
  EXPECT_EQ(symbol.updateFirmware(CALLER_LSM, version), -1);
  EXPECT_THAT(recording::messages(), IsEmpty()) << "the record is not bound any more";
  EXPECT_FALSE(symbol.getIMGExists());
}

TEST_F(ModuleBinding, CanTurnAnExtensionModulesRecordIntoAnUpdatableOne) {
  scripted::installModule("libabc");
  FWUpdateSymbol symbol = bound("libEXT-abc");
  ASSERT_EQ(symbol.getSymbolType(), 1);

  EXPECT_EQ(symbol.loadSymbol("libabc"), 0);

  EXPECT_EQ(symbol.getSymbolType(), 0);
}
