// SPDX-License-Identifier: Apache-2.0
// The module registry: scan, readiness, software model, lookups.
#include "fw-update-symbol-manager.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <thread>

#include "fault-injection.h"
#include "library-test.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

namespace {

class ModuleRegistry : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    std::filesystem::create_directories(kControls);
  }

  static FWUpdateSymbolManager& registry() { return *FWUpdateSymbolManager::getInstance(); }

  static std::vector<std::string> names() {
    std::list<FWUpdateItem> items;
    registry().getFwItems(items);
    std::vector<std::string> out;
    for (const FWUpdateItem& item : items) {
      out.push_back(item.file_name);
    }
    return out;
  }
};

constexpr const char* kWithoutSlash = "/prd/usr/fwupdate/controls";

std::string said(const std::string& function, const std::string& text) {
  return "6 fw-update-symbol-manager.cpp " + function + " " + text;
}

}  // namespace

TEST_F(ModuleRegistry, DoesNotScanBeforeItIsAsked) {
  scripted::installModule("libabc");

  EXPECT_THAT(names(), IsEmpty());
  EXPECT_THAT(recording::everything(), IsEmpty());
}

TEST_F(ModuleRegistry, IsReadyWithAnEmptyControlsDirectory) {
  std::list<FWUpdateItem> items;
  char version[128] = "kept";
  char fwName[128] = "kept";
  unsigned int progress = 7;

  EXPECT_TRUE(registry().onCreate(false));

  EXPECT_EQ(registry().getFwItems(items), 0);
  EXPECT_THAT(items, IsEmpty());
  EXPECT_EQ(registry().getFirmwareVersion("libabc", version, fwName), -1);
  EXPECT_STREQ(version, "kept");
  EXPECT_STREQ(fwName, "kept");
  EXPECT_EQ(registry().getFirmwareUpdateProgress("libabc", &progress), -1);
  EXPECT_EQ(progress, 7U);
}

TEST_F(ModuleRegistry, TakesOnlyFilesThatEndInSo) {
  scripted::installModule("libabc");
  writeFile(std::string(kControls) + "libabc.so.1", "");
  writeFile(std::string(kControls) + "libdef.SO", "");
  writeFile(std::string(kControls) + "readme.txt", "");

  EXPECT_TRUE(registry().onCreate(false));

  EXPECT_THAT(names(), ElementsAre("libabc"));
}

TEST_F(ModuleRegistry, FollowsTheOrderOfTheDirectory) {
  for (const char* stem : {"libd", "liba", "libc", "libb", "libe"}) {
    scripted::installModule(stem);
  }
  std::vector<std::string> order;
  for (const auto& entry : std::filesystem::directory_iterator(kControls)) {
    order.push_back(entry.path().stem());
  }

  registry().onCreate(false);

  EXPECT_EQ(names(), order);
}

TEST_F(ModuleRegistry, ScansFirstAndBindsAfterwards) {
  // In whatever order the directory yields them, a skipped file comes last.
  scripted::installModule("EXT-first");
  scripted::installModule("liba");
  scripted::installModule("EXT-last");

  registry().onCreate(true);

  EXPECT_THAT(
      recording::everything(),
      ElementsAre(StartsWith("log: En/Decryption Service EXT skip ["),
                  StartsWith("log: En/Decryption Service EXT skip ["), "liba.setContext(\"liba\", 2, \"\")",
                  "liba.getEMPID()", "system_info_get_value_string(128)", "log: SWModel : model-1"));
}

TEST_F(ModuleRegistry, OpensModulesUnderTheirRealPaths) {
  scripted::installModule("libabc");
  std::filesystem::rename(kControls, "/prd/modules");
  std::filesystem::create_directory_symlink("/prd/modules", kWithoutSlash);
  std::filesystem::create_directory("/prd/elsewhere");
  std::filesystem::copy_file("/prd/modules/libabc.so", "/prd/elsewhere/libdef-1.so");
  std::filesystem::create_symlink("../elsewhere/libdef-1.so", "/prd/modules/libdef.so");

  EXPECT_TRUE(registry().onCreate(false));

  EXPECT_THAT(names(), UnorderedElementsAre("libabc", "libdef"));
  EXPECT_THAT(faults::libraryCalls(),
              UnorderedElementsAre("dlopen(/prd/modules/libabc.so)", "dlopen(/prd/elsewhere/libdef-1.so)"));
}

TEST_F(ModuleRegistry, SaysNothingOfALinkThatLeadsNowhere) {
  std::filesystem::create_symlink("nowhere.so", std::string(kControls) + "libabc.so");

  EXPECT_TRUE(registry().onCreate(false));

  EXPECT_THROW(names(), std::bad_function_call);
  EXPECT_THAT(faults::libraryCalls(), IsEmpty());
  EXPECT_THAT(recording::everything(),
              ElementsAre("system_info_get_value_string(128)", "log: SWModel : model-1"));
}

TEST_F(ModuleRegistry, ForgetsTheRealPathAfterAScan) {
  scripted::installModule("libabc");
  EXPECT_TRUE(registry().onCreate(false));
  std::filesystem::rename(kControls, "/prd/modules");
  std::filesystem::create_directory_symlink("/prd/modules", kWithoutSlash);
  faults::libraryCalls().clear();
  FWUpdateSymbol symbol("libabc");

  EXPECT_EQ(symbol.loadSymbol("libabc"), 0);

  EXPECT_THAT(faults::libraryCalls(), ElementsAre("dlopen(/prd/modules/libabc.so)"));
}

TEST_F(ModuleRegistry, KeepsADirectoryNamedLikeALibraryUnbound) {
  std::filesystem::create_directories(std::string(kControls) + "libdir.so");

  EXPECT_TRUE(registry().onCreate(false));

  EXPECT_THROW(names(), std::bad_function_call);
}

TEST_F(ModuleRegistry, TakesAFileNamedSoForAModuleWithAnEmptyName) {
  scripted::installModule("");

  EXPECT_TRUE(registry().onCreate(false));

  EXPECT_THROW(names(), std::bad_function_call) << "a record is there, and is never bound";
  char version[128];
  char fwName[128];
  EXPECT_THROW(registry().getFirmwareVersion("", version, fwName), std::bad_function_call);
}

TEST_F(ModuleRegistry, LeavesExtensionModulesOutOnRequest) {
  for (const char* stem : {"libext-abc", "EXT-abc", "libnext-gen", "libabc"}) {
    scripted::installModule(stem);
  }
  writeFile(std::string(kControls) + "EXT-readme.txt", "");

  EXPECT_TRUE(registry().onCreate(true));

  EXPECT_THAT(names(), ElementsAre("libabc"));
  auto messages = recording::messages();
  messages.pop_back();  // the software model
  EXPECT_THAT(messages,
              UnorderedElementsAre(said("onCreate", "En/Decryption Service EXT skip [libext-abc]"),
                                   said("onCreate", "En/Decryption Service EXT skip [EXT-abc]"),
                                   said("onCreate", "En/Decryption Service EXT skip [libnext-gen]"),
                                   said("onCreate", "En/Decryption Service EXT skip [EXT-readme]")));
}

TEST_F(ModuleRegistry, LoadsExtensionModulesOtherwise) {
  for (const char* stem : {"libext-abc", "EXT-abc", "libnext-gen"}) {
    scripted::installModule(stem);
  }

  EXPECT_TRUE(registry().onCreate(false));

  EXPECT_THAT(names(), UnorderedElementsAre("libext-abc", "EXT-abc", "libnext-gen"));
}

TEST_F(ModuleRegistry, FailsWithoutAControlsDirectory) {
  std::filesystem::remove(kControls);

  EXPECT_FALSE(registry().getIsReady(false));

  EXPECT_THAT(recording::messages(),
              ElementsAre(said(
                  "onCreate",
                  "File System Exception: boost::filesystem::directory_iterator::construct: No such file "
                  "or directory: \"/prd/usr/fwupdate/controls/\" ")));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("File System Exception: %s "));
  EXPECT_THAT(recording::calls(), IsEmpty()) << "the software model is not read";
}

TEST_F(ModuleRegistry, FailsWithAControlsDirectoryItMayNotRead) {
  std::filesystem::permissions(kControls, std::filesystem::perms::none);
  {
    const WithoutFileOverride asAnyone;
    EXPECT_FALSE(registry().getIsReady(false));
  }
  std::filesystem::permissions(kControls, std::filesystem::perms::all);

  EXPECT_THAT(recording::texts()[0], StartsWith("File System Exception: "));
}

TEST_F(ModuleRegistry, RetriesAFailedScanAndThenStaysReady) {
  std::filesystem::remove(kControls);
  EXPECT_FALSE(registry().getIsReady(false));

  scripted::installModule("libabc");
  scripted::installModule("libEXT-abc");

  EXPECT_TRUE(registry().getIsReady(false));
  EXPECT_TRUE(registry().getIsReady(true)) << "neither rescans nor drops extension modules";
  EXPECT_THAT(names(), UnorderedElementsAre("libabc", "libEXT-abc"));
}

TEST_F(ModuleRegistry, AppendsOnEveryDirectScanAndFindsTheFirst) {
  scripted::installModule("libabc");
  registry().onCreate(false);
  registry().onCreate(false);
  char version[128] = {};
  char fwName[128] = {};

  EXPECT_THAT(names(), ElementsAre("libabc", "libabc"));
  EXPECT_EQ(registry().getFirmwareVersion("libabc", version, fwName), 0);
  EXPECT_STREQ(version, "1.0");
}

TEST_F(ModuleRegistry, BindsTheOldRecordsAgainAndFindsTheFirstOfAName) {
  scripted::installModule("libabc");
  registry().onCreate(false);
  int identifiers = 0;
  scripted::module("libabc").writeEMPID = [&identifiers](char* out) {
    std::strcpy(out, ++identifiers == 1 ? "empfirst" : "empsecond");
  };
  char version[128] = {};
  char fwName[128] = {};

  registry().onCreate(false);

  EXPECT_EQ(identifiers, 2);
  EXPECT_EQ(registry().getFirmwareVersion("libabc", version, fwName), 0);
  EXPECT_STREQ(fwName, "first");
}

TEST_F(ModuleRegistry, IsNotMadeReadyByADirectScan) {
  scripted::installModule("libabc");
  registry().onCreate(false);

  EXPECT_TRUE(registry().getIsReady(false));

  EXPECT_THAT(names(), ElementsAre("libabc", "libabc")) << "it scanned once more";
}

TEST_F(ModuleRegistry, PassesTheWishToLeaveExtensionModulesOutOn) {
  scripted::installModule("libabc");
  scripted::installModule("libEXT-abc");

  EXPECT_TRUE(registry().getIsReady(true));

  EXPECT_THAT(names(), ElementsAre("libabc"));
}

TEST_F(ModuleRegistry, IsEmptyButReadyAfterItWasDestroyed) {
  scripted::installModule("libabc");
  registry().getIsReady(false);

  EXPECT_TRUE(registry().onDestroy());

  EXPECT_TRUE(registry().getIsReady(false));
  EXPECT_THAT(names(), IsEmpty());
  EXPECT_TRUE(registry().onCreate(false));
  EXPECT_THAT(names(), ElementsAre("libabc"));
}

TEST_F(ModuleRegistry, ListsTheModulesBeforeTheOneThatIsNotBound) {
  for (const char* stem : {"liba", "libb", "libc", "libd"}) {
    scripted::installModule(stem);
  }
  std::vector<std::string> order;
  for (const auto& entry : std::filesystem::directory_iterator(kControls)) {
    order.push_back(entry.path().stem());
  }
  writeFile(std::string(kControls) + order[2] + ".so", "no library");
  registry().getIsReady(false);
  std::list<FWUpdateItem> items;

  EXPECT_THROW(registry().getFwItems(items), std::bad_function_call);

  ASSERT_EQ(items.size(), 2U);
  EXPECT_EQ(items.front().file_name, order[0]);
  EXPECT_EQ(items.back().file_name, order[1]);
  char version[128];
  char fwName[128] = "kept";
  EXPECT_THROW(registry().getFirmwareVersion(order[2], version, fwName), std::bad_function_call);
  EXPECT_STREQ(fwName, "kept");
}

TEST_F(ModuleRegistry, AppendsItemsToTheCallersList) {
  scripted::installModule("libabc");
  registry().onCreate(false);
  std::list<FWUpdateItem> items;

  EXPECT_EQ(registry().getFwItems(items), 0);
  EXPECT_EQ(registry().getFwItems(items), 0);

  ASSERT_EQ(items.size(), 2U);
  EXPECT_STREQ(items.front().file_name, "libabc");
  EXPECT_STREQ(items.front().version, "1.0");
  EXPECT_STREQ(items.front().fw_name, "abc");
}

TEST_F(ModuleRegistry, ListsAModuleWhoseVersionQueryFails) {
  scripted::installModule("libabc");
  scripted::module("libabc").writeActiveVersion = [](char*) { return -5; };
  registry().onCreate(false);
  std::list<FWUpdateItem> items;

  EXPECT_EQ(registry().getFwItems(items), 0);

  ASSERT_EQ(items.size(), 1U);
  EXPECT_STREQ(items.front().version, "");
}

TEST_F(ModuleRegistry, CutsALongFirmwareNameAt127Characters) {
  // The longest identifier a module can write gives a name of 124 characters, so
  // only the name of the library can be longer than the fields.
  scripted::installModule("libabc");
  scripted::module("libabc").empId = "emp" + std::string(124, 'n');
  const std::string longStem = "lib" + std::string(200, 'x');
  scripted::installModule(longStem);
  registry().onCreate(false);
  char version[128] = {};
  char fwName[128];
  std::memset(fwName, '#', sizeof(fwName));

  EXPECT_EQ(registry().getFirmwareVersion("libabc", version, fwName), 0);

  EXPECT_EQ(std::string(fwName), std::string(124, 'n'));
  EXPECT_EQ(fwName[125], '\0');
  EXPECT_EQ(fwName[126], '\0') << "the copy is padded to 127 bytes";
  EXPECT_EQ(fwName[127], '#') << "and ends there";
  EXPECT_THAT(names(), UnorderedElementsAre("libabc", longStem.substr(0, 127)));
}

TEST_F(ModuleRegistry, GivesTheFirmwareNameAlsoWhenTheVersionQueryFails) {
  scripted::installModule("libabc");
  scripted::module("libabc").activeVersionResult = 4;
  registry().onCreate(false);
  char version[128] = {};
  char fwName[128] = {};

  EXPECT_EQ(registry().getFirmwareVersion("libabc", version, fwName), 4);

  EXPECT_STREQ(fwName, "abc");
}

TEST_F(ModuleRegistry, ComparesNamesExactly) {
  scripted::installModule("libabc");
  registry().onCreate(false);
  char version[128] = {};
  char fwName[128] = {};

  EXPECT_EQ(registry().getFirmwareVersion("LIBABC", version, fwName), -1);
  EXPECT_EQ(registry().getFirmwareVersion("libab", version, fwName), -1);
  EXPECT_EQ(registry().getFirmwareVersion("libabc.so", version, fwName), -1);
  EXPECT_EQ(registry().getFirmwareVersion(std::string("libabc\0", 7), version, fwName), -1);
}

TEST_F(ModuleRegistry, PassesTheModulesProgressOn) {
  scripted::installModule("libabc");
  scripted::module("libabc").progressResult = 3;
  scripted::installModule("libdef", "getUpdateProgress");
  registry().onCreate(false);
  unsigned int progress = 0;

  EXPECT_EQ(registry().getFirmwareUpdateProgress("libabc", &progress), 3);
  EXPECT_EQ(progress, 42U);
  EXPECT_EQ(registry().getFirmwareUpdateProgress("libdef", &progress), -1);
}

// ---- Software model ---------------------------------------------------------------

TEST_F(ModuleRegistry, ReadsTheSoftwareModelUpToTheLastDash) {
  recording::answers().softwareVersion = "X-Y-Z";

  EXPECT_EQ(registry().getSWVersionString(), 0);

  EXPECT_THAT(recording::messages(),
              ElementsAre("4 fw-update-symbol-manager.cpp getSWVersionString SWModel : X-Y"));
  EXPECT_THAT(recording::traceRecords(), IsEmpty());
  EXPECT_THAT(recording::calls(), ElementsAre("system_info_get_value_string(128)"));
}

TEST_F(ModuleRegistry, StaysReadyWhenTheSoftwareVersionIsUnreadable) {
  recording::answers().softwareVersionStatus = -1;

  EXPECT_TRUE(registry().onCreate(false));

  EXPECT_THAT(recording::messages(),
              ElementsAre(said("getSWVersionString", "Unable to read SW version from system-info"),
                          said("onCreate", "Error: getSwVersion fail")));
}

TEST_F(ModuleRegistry, CountsANullSoftwareVersionAsUnreadable) {
  recording::answers().softwareVersion.reset();

  EXPECT_EQ(registry().getSWVersionString(), -1);

  EXPECT_THAT(recording::texts(), ElementsAre("Unable to read SW version from system-info"));
}

TEST_F(ModuleRegistry, RefusesASoftwareVersionWithoutDash) {
  recording::answers().softwareVersion = "plain";

  EXPECT_TRUE(registry().onCreate(false));

  EXPECT_THAT(
      recording::messages(),
      ElementsAre(said("getSWVersionString", "getSWVersionString: Wrong string format - lack of dash: plain"),
                  said("onCreate", "Error: getSwVersion fail")));
  EXPECT_THAT(
      recording::traceFormats(),
      ElementsAre("getSWVersionString: Wrong string format - lack of dash: %s", "Error: getSwVersion fail"));
}

TEST_F(ModuleRegistry, TakesADashAtTheStartForAnEmptyModel) {
  recording::answers().softwareVersion = "-Z";

  EXPECT_EQ(registry().getSWVersionString(), 0);

  EXPECT_THAT(recording::texts(), ElementsAre("SWModel : "));
}

// ---- The list of needed updates -----------------------------------------------------

TEST_F(ModuleRegistry, ListsOnlyModulesThatAnswerExactlyOne) {
  const std::pair<const char*, int> modules[] = {{"liba", 1}, {"libb", 0}, {"libc", 2}, {"libd", -1}};
  for (const auto& [stem, need] : modules) {
    scripted::installModule(stem);
    scripted::module(stem).empId = std::string("emp") + stem;
    scripted::module(stem).need = need;
    writeImage(kBuiltin, stem);
  }
  registry().onCreate(false);
  std::list<FWUpdateItem> items;
  char data[] = "";

  EXPECT_EQ(registry().getUpdateFwItems(items, CALLER_UPGRADE_APP, data), 0);

  ASSERT_EQ(items.size(), 1U);
  EXPECT_STREQ(items.front().file_name, "liba");
  EXPECT_STREQ(items.front().fw_name, "liba");
}

TEST_F(ModuleRegistry, DecidesEachModuleBeforeItsVersionIsRead) {
  scripted::installModule("libabc");
  writeImage(kBuiltin, "abc");
  registry().onCreate(false);
  recording::reset();
  std::list<FWUpdateItem> items;
  char data[] = "text";

  registry().getUpdateFwItems(items, CALLER_UPGRADE_APP, data);

  EXPECT_THAT(recording::calls(),
              ElementsAre("libabc.setContext(\"libabc\", 4, \"text\")", "libabc.checkVersion(\"2.0\", 0)",
                          "libabc.setContext(\"libabc\", 2, \"\")", "libabc.getActiveVersion()"));
}
