// SPDX-License-Identifier: Apache-2.0
// The client facade: item list, update requests, status queries.
#include "fw-update-control.h"

#include <cstring>
#include <filesystem>
#include <functional>

#include "fw-update-symbol-manager.h"
#include "library-test.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

class Facade : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    std::filesystem::create_directories(kControls);
  }

  static FWUpdateContorl& facade() { return *FWUpdateContorl::getInstance(); }

  // A module, its image in every directory that a request can name, the facade up.
  static void oneModule() {
    scripted::installModule("libabc");
    std::filesystem::create_directories("/opt/media/USBDriveA");
    for (const char* directory : {kBuiltin, kSbox, "/opt/media/USBDriveA/"}) {
      writeImage(directory, "abc", "2.0", "content", 30);
    }
    facade();
    recording::reset();
  }
};

std::string said(int priority, const std::string& function, const std::string& text) {
  return std::to_string(priority) + " fw-update-control.cpp " + function + " " + text;
}

std::string updateLine(int caller, int state, const std::string& name) {
  return said(6, "fw_update_from_control",
              "fw_update from Caller Type [" + std::to_string(caller) + "] STATE [" + std::to_string(state) +
                  "] DATA [" + name + "]");
}

}  // namespace

// ---- Item record --------------------------------------------------------------------

TEST(UpdateItem, CutsEachTextAt127Characters) {
  const std::string text(300, 'x');

  const FWUpdateItem item(text.c_str(), "1.0", text.c_str());

  EXPECT_EQ(std::string(item.file_name), std::string(127, 'x'));
  EXPECT_STREQ(item.version, "1.0");
  EXPECT_EQ(std::string(item.fw_name), std::string(127, 'x'));
}

TEST(UpdateItem, FillsItsFieldsWithZeros) {
  const FWUpdateItem item("a", "", "bc");

  EXPECT_EQ(std::string(item.file_name, 128), "a" + std::string(127, '\0'));
  EXPECT_EQ(std::string(item.version, 128), std::string(128, '\0'));
  EXPECT_EQ(std::string(item.fw_name, 128), "bc" + std::string(126, '\0'));
}

TEST(UpdateItem, TerminatesACopyOfAnUnterminatedField) {
  FWUpdateItem item("a", "b", "c");
  std::memset(item.version, 'v', sizeof(item.version));

  const FWUpdateItem copy(item);

  EXPECT_EQ(std::string(copy.version), std::string(127, 'v'));
  EXPECT_STREQ(copy.file_name, "a");
  EXPECT_STREQ(copy.fw_name, "c");
}

TEST(UpdateItem, HoldsNothingButThreeFieldsOf128Bytes) {
  EXPECT_EQ(sizeof(FWUpdateItem), 384U);
  EXPECT_EQ(offsetof(FWUpdateItem, file_name), 0U);
  EXPECT_EQ(offsetof(FWUpdateItem, version), 128U);
  EXPECT_EQ(offsetof(FWUpdateItem, fw_name), 256U);
}

// ---- Item list ----------------------------------------------------------------------

TEST_F(Facade, ListsNothingWithoutModules) {
  EXPECT_THAT(facade().fw_getItemList(), IsEmpty());
}

TEST_F(Facade, IsConstructedWithoutAControlsDirectory) {
  std::filesystem::remove(kControls);

  EXPECT_THAT(facade().fw_getItemList(), IsEmpty());

  EXPECT_THAT(recording::messages(), Contains(said(6, "FWUpdateContorl", "Fw-Service symbol is not loaded")));
  EXPECT_EQ(facade().fw_update_from_lsm("libabc", ""), -1) << "later calls go to the registry as usual";
}

TEST_F(Facade, ListsWhatTheRegistryHoldsAlsoWhenItsOwnScanFails) {
  scripted::installModule("libabc");
  FWUpdateSymbolManager::getInstance()->onCreate(false);
  std::filesystem::remove_all(kControls);

  const auto items = facade().fw_getItemList();

  EXPECT_THAT(recording::texts(), Contains("Fw-Service symbol is not loaded"));
  ASSERT_EQ(items.size(), 1U);
  EXPECT_STREQ(items.front().file_name, "libabc");
}

TEST_F(Facade, ListsExtensionModulesToo) {
  scripted::installModule("libEXT-abc");

  const auto items = facade().fw_getItemList();

  ASSERT_EQ(items.size(), 1U);
  EXPECT_STREQ(items.front().file_name, "libEXT-abc");
  EXPECT_STREQ(items.front().fw_name, "");
}

TEST_F(Facade, KeepsTheListOfItsConstruction) {
  oneModule();
  scripted::module("libabc").activeVersion = "2.0";
  char version[128] = {};

  const auto items = facade().fw_getItemList();

  ASSERT_EQ(items.size(), 1U);
  EXPECT_STREQ(items.front().version, "1.0");
  EXPECT_EQ(facade().fw_getVersion("libabc", version), 0);
  EXPECT_STREQ(version, "2.0");
}

TEST_F(Facade, HandsOutIndependentLists) {
  oneModule();

  auto first = facade().fw_getItemList();
  std::strcpy(first.front().version, "changed");

  EXPECT_STREQ(facade().fw_getItemList().front().version, "1.0");
}

TEST_F(Facade, LetsTheExceptionOfAnUnboundModuleThroughAndTriesAgain) {
  writeFile(std::string(kControls) + "libbad.so", "no library");

  EXPECT_THROW(FWUpdateContorl::getInstance(), std::bad_function_call);
  recording::reset();
  EXPECT_THROW(FWUpdateContorl::getInstance(), std::bad_function_call);

  EXPECT_THAT(recording::everything(), IsEmpty()) << "the registry is ready and is not scanned again";
}

class FacadeBesideAModuleWithout : public Facade, public ::testing::WithParamInterface<const char*> {};

// What the facade itself calls when it makes its list.
using FacadeBesideAModuleWithoutWhatListsCall = FacadeBesideAModuleWithout;

TEST_P(FacadeBesideAModuleWithoutWhatListsCall, DoesNotStart) {
  scripted::installModule("libbad", GetParam());

  EXPECT_THROW(FWUpdateContorl::getInstance(), std::bad_function_call);
}

INSTANTIATE_TEST_SUITE_P(Facade, FacadeBesideAModuleWithoutWhatListsCall,
                         ::testing::Values("setContext", "getEMPID", "getActiveVersion"));

using FacadeBesideAModuleWithoutWhatUpdatesCall = FacadeBesideAModuleWithout;

TEST_P(FacadeBesideAModuleWithoutWhatUpdatesCall, UpdatesTheOthers) {
  scripted::installModule("libabc");
  scripted::installModule("libbad", GetParam());
  writeImage(kBuiltin, "abc", "2.0", "content", 30);

  EXPECT_EQ(facade().fw_getItemList().size(), 2U);
  EXPECT_EQ(facade().fw_update_from_upgrade_app("libbad", ""), -1);
  EXPECT_EQ(facade().fw_update_from_upgrade_app("libabc", ""), 0);
}

INSTANTIATE_TEST_SUITE_P(Facade, FacadeBesideAModuleWithoutWhatUpdatesCall,
                         ::testing::Values("checkVersion", "doUpdate"));

// ---- Update requests ----------------------------------------------------------------

struct Request {
  int (FWUpdateContorl::*call)(const char*, const char*);
  int caller;
  const char* data;
};

void PrintTo(const Request& request, std::ostream* out) {
  *out << request.caller << " " << request.data;
}

class FacadeRequest : public Facade, public ::testing::WithParamInterface<Request> {};

TEST_P(FacadeRequest, ReachesTheModuleWithItsCallerAndData) {
  oneModule();
  const Request request = GetParam();

  EXPECT_EQ((facade().*request.call)("libabc", "USB"), 0);

  EXPECT_THAT(recording::calls(), Contains("libabc.setContext(\"libabc\", " + std::to_string(request.caller) +
                                           ", \"" + request.data + "\")")
                                      .Times(2));
  EXPECT_EQ(recording::messages().back(), updateLine(request.caller, 0, "libabc"));
}

INSTANTIATE_TEST_SUITE_P(
    Facade, FacadeRequest,
    ::testing::Values(Request{&FWUpdateContorl::fw_update_from_factory, 0, "USB"},
                      Request{&FWUpdateContorl::fw_update_from_debug, 1, "USB"},
                      Request{&FWUpdateContorl::fw_update_from_factory_automation, 4, "FACTORY_AUTOMATION"},
                      Request{&FWUpdateContorl::fw_update_from_upgrade_app, 4, "USB"},
                      Request{&FWUpdateContorl::fw_update_from_lsm, 5, "USB"},
                      Request{&FWUpdateContorl::fw_update_from_upgrade_epsolution, 7, "USB"}));

TEST_F(Facade, ReachesTheCallersWithoutAWrapper) {
  oneModule();

  EXPECT_EQ(facade().fw_update_from_control("libabc", CALLER_RESERVED6, "x"), 0);

  EXPECT_THAT(recording::calls(), Contains("libabc.setContext(\"libabc\", 6, \"x\")").Times(2));
}

TEST_F(Facade, CutsTheDataAt127Characters) {
  oneModule();
  const std::string data(300, 'd');

  facade().fw_update_from_lsm("libabc", data.c_str());

  EXPECT_THAT(recording::calls(),
              Contains("libabc.setContext(\"libabc\", 5, \"" + std::string(127, 'd') + "\")"));
}

TEST_F(Facade, LogsTheNameUnderDataForAnUnknownModule) {
  facade();
  recording::reset();

  EXPECT_EQ(facade().fw_update_from_debug("libnone", "USB"), -1);

  EXPECT_THAT(recording::messages(), ElementsAre(updateLine(1, -1, "libnone")));
  ASSERT_EQ(recording::traceLocations().size(), 1U);
  const auto arguments = recording::traceLocations()[0].arguments;
  ASSERT_EQ(arguments.size(), 3U);
  EXPECT_EQ(arguments[0].typeName, "CallerTypes");
  EXPECT_EQ(arguments[1].typeName, "int");
  EXPECT_EQ(arguments[2].typeName, "char const*");
  const int numbers[] = {1, -1};
  EXPECT_EQ(recording::traceRecords()[0].payload,
            std::string(reinterpret_cast<const char*>(numbers), sizeof(numbers)) +
                "\x07"
                "libnone");
}

TEST_F(Facade, PassesTheModulesResultThrough) {
  oneModule();
  scripted::module("libabc").doUpdateResult = -17;

  EXPECT_EQ(facade().fw_update_from_lsm("libabc", ""), -17);

  EXPECT_EQ(recording::messages().back(), updateLine(5, -17, "libabc"));
}

// ---- Status queries -----------------------------------------------------------------

TEST_F(Facade, AnswersVersionAndFirmwareNameAtDebugLevel) {
  oneModule();
  char version[128] = {};
  char fwName[128] = {};

  EXPECT_EQ(facade().fw_getFWInformation("libabc", version, fwName), 0);

  EXPECT_STREQ(version, "1.0");
  EXPECT_STREQ(fwName, "abc");
  EXPECT_THAT(recording::messages(),
              ElementsAre(said(3, "fw_getFWInformation", "fw_getFWInformation STATE [0] DATA [libabc]")));
  EXPECT_THAT(recording::traceRecords(), IsEmpty());
}

TEST_F(Facade, FillsTheFirmwareNameAlsoWhenTheVersionQueryFails) {
  oneModule();
  scripted::module("libabc").activeVersionResult = -9;
  char version[128] = {};
  char fwName[128] = {};

  EXPECT_EQ(facade().fw_getFWInformation("libabc", version, fwName), -9);

  EXPECT_STREQ(fwName, "abc");
}

TEST_F(Facade, LeavesTheBuffersForAnUnknownModule) {
  facade();
  recording::reset();
  char version[128] = "kept";
  char fwName[128] = "kept";

  EXPECT_EQ(facade().fw_getFWInformation("libnone", version, fwName), -1);
  EXPECT_EQ(facade().fw_getVersion("libnone", version), -1);

  EXPECT_STREQ(version, "kept");
  EXPECT_STREQ(fwName, "kept");
  EXPECT_THAT(recording::messages(),
              ElementsAre(said(3, "fw_getFWInformation", "fw_getFWInformation STATE [-1] DATA [libnone]"),
                          said(3, "fw_getVersion", "fw_getVersion STATE [-1] DATA [libnone]")));
}

TEST_F(Facade, RaisesBadFunctionCallForAModuleThatIsNotBound) {
  // Bound when the facade came up, no library any more at a new scan.
  oneModule();
  FWUpdateSymbolManager::getInstance()->onDestroy();
  writeFile(std::string(kControls) + "libabc.so", "no library");
  FWUpdateSymbolManager::getInstance()->onCreate(false);
  char version[128] = {};
  char fwName[128] = {};
  char data[] = "";

  EXPECT_THROW(facade().fw_getVersion("libabc", version), std::bad_function_call);
  EXPECT_THROW(facade().fw_getFWInformation("libabc", version, fwName), std::bad_function_call);
  EXPECT_THROW(facade().fw_getUpdateItemList(CALLER_LSM, data), std::bad_function_call);
}

TEST_F(Facade, ListsTheUpdatesThatARequesterNeeds) {
  oneModule();
  char data[] = "text";

  const auto items = facade().fw_getUpdateItemList(CALLER_LSM, data);

  ASSERT_EQ(items.size(), 1U);
  EXPECT_STREQ(items.front().file_name, "libabc");
  EXPECT_THAT(recording::calls(), Contains("libabc.setContext(\"libabc\", 5, \"text\")"));
  EXPECT_EQ(recording::messages().back(),
            said(6, "fw_getUpdateItemList", "update list is fw_name[abc] version [1.0] fiename[libabc]"));
  EXPECT_EQ(recording::traceFormats().back(), "update list is fw_name[%s] version [%s] fiename[%s]");
  EXPECT_EQ(recording::traceRecords().back().payload,
            "\x03"
            "abc"
            "\x03"
            "1.0"
            "\x06"
            "libabc");
}

TEST_F(Facade, ReplacesTheUpdateListWithEachQuery) {
  oneModule();
  std::filesystem::remove_all(std::string(kBuiltin) + "abc");
  char data[] = "";
  EXPECT_EQ(facade().fw_getUpdateItemList(CALLER_LSM, data).size(), 1U);
  EXPECT_EQ(facade().fw_getUpdateItemList(CALLER_LSM, data).size(), 1U);
  recording::reset();

  const auto items = facade().fw_getUpdateItemList(CALLER_UPGRADE_APP, data);

  EXPECT_THAT(items, IsEmpty());
  EXPECT_THAT(recording::texts(), Not(Contains(StartsWith("update list is"))));
}

TEST_F(Facade, ReportsProgressAtErrorLevel) {
  oneModule();
  unsigned int progress = 0;

  EXPECT_EQ(facade().fw_getUpdateProgress("libabc", &progress), 0);

  EXPECT_EQ(progress, 42U);
  EXPECT_THAT(recording::messages(),
              ElementsAre(said(6, "fw_getUpdateProgress",
                               "fw_getUpdateProgress STATE [0] DATA [libabc] Progress [42]")));
  EXPECT_THAT(recording::traceFormats(),
              ElementsAre("fw_getUpdateProgress STATE [%d] DATA [%s] Progress [%d]"));
  const int state = 0;
  const unsigned int value = 42;
  EXPECT_EQ(recording::traceRecords().back().payload,
            std::string(reinterpret_cast<const char*>(&state), 4) +
                "\x06"
                "libabc" +
                std::string(reinterpret_cast<const char*>(&value), 4));
}

TEST_F(Facade, LogsTheCallersValueWhenThereIsNoProgress) {
  scripted::installModule("libabc", "getUpdateProgress");
  facade();
  recording::reset();
  unsigned int progress = 7;

  EXPECT_EQ(facade().fw_getUpdateProgress("libnone", &progress), -1);
  EXPECT_EQ(facade().fw_getUpdateProgress("libabc", &progress), -1);

  EXPECT_EQ(progress, 7U);
  EXPECT_THAT(recording::texts(), ElementsAre("fw_getUpdateProgress STATE [-1] DATA [libnone] Progress [7]",
                                              "fw_getUpdateProgress STATE [-1] DATA [libabc] Progress [7]"));
}
