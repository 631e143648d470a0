// SPDX-License-Identifier: Apache-2.0
// The decision whether a module needs an update, and its execution.
#include <pthread.h>

#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <thread>
#include <utility>

#include "gate.h"
#include "library-test.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

class Update : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    std::filesystem::create_directories(kPackageMounts);
  }

  char noData[1] = {'\0'};
};

class NeedUpdate : public Update {};
class UpdateFirmware : public Update {};
class RunProcess : public Update {};

std::string said(const std::string& function, const std::string& text) {
  return "6 fw-update-symbol.cpp " + function + " " + text;
}

const std::string kTried = "libabc Firmware isNeedUpdateModules Try(abc)";
const std::string kSetContext = "libabc.setContext(\"libabc\", 4, \"\")";
const std::string kImage = "/lib/firmware/ext/abc/abc.bin";
const std::string kInfo = "/lib/firmware/ext/abc/info.json";
const std::string kMountDirectory = "/opt/usr/apps/appbinarymanager/emps/abcemp";
const std::string kPackageImage = "/opt/usr/apps/appbinarymanager/abcemp.img";
const std::string kUmountCall = "PS_Umount(" + kMountDirectory + "|42|0|0)";
const std::string kMountCall =
    "PS_Mount(-o ro,loop,nodev,nosuid " + kPackageImage + " " + kMountDirectory + "|1024|0|0)";

// A thread for which a test can wait until it waits.
class OtherThread {
 public:
  explicit OtherThread(std::function<void()> work)
      : thread_([this, task = std::move(work)] {
          id_ = gettid();
          task();
        }) {}

  // Until it has this name and sleeps in the kernel.
  void waitUntilBlocked(const std::string& name) const {
    while (id_ == 0) {
      std::this_thread::yield();
    }
    const std::string status = "/proc/self/task/" + std::to_string(id_) + "/stat";
    while (DeviceTest::readFile(status).find(" (" + name + ") S ") == std::string::npos) {
      std::this_thread::yield();
    }
  }
  void join() { thread_.join(); }

 private:
  std::atomic<pid_t> id_{0};
  std::thread thread_;
};

// Holds a module in its doUpdate.
class HeldUpdate {
 public:
  explicit HeldUpdate(const std::string& stem) {
    scripted::module(stem).doUpdate = [this, stem](const char*, unsigned long) {
      entered_.open();
      released_.wait();
      recording::noteCall(stem + " ends");
      return 0;
    };
  }

  void waitUntilEntered() { entered_.wait(); }
  void leave() { released_.open(); }

 private:
  Gate entered_;
  Gate released_;
};

std::string doUpdateCall(const std::string& path, const std::string& content) {
  return "libabc.doUpdate(\"" + path + "\", " + std::to_string(referenceCrc(content)) + ")";
}

}  // namespace

// ---- isNeedUpdate -----------------------------------------------------------------

TEST_F(NeedUpdate, AsksTheModuleOnceTheImageIsChecked) {
  FWUpdateSymbol symbol = bound();
  writeImage(kBuiltin, "abc", "2.0", "content", 30);

  EXPECT_EQ(symbol.isNeedUpdate(CALLER_UPGRADE_APP, noData), 1);

  EXPECT_TRUE(symbol.getNeedUpdate());
  EXPECT_EQ(symbol.getExpectedUpdateTime(), 30U);
  EXPECT_THAT(recording::everything(),
              ElementsAre("log: " + kTried, kSetContext, "libabc.checkVersion(\"2.0\", 0)"));
  EXPECT_THAT(recording::messages(), ElementsAre(said("isNeedUpdate", kTried)));
}

TEST_F(NeedUpdate, IgnoresAFailingSetContext) {
  FWUpdateSymbol symbol = bound();
  scripted::module("libabc").setContextResult = -1;
  writeImage(kBuiltin, "abc");

  EXPECT_EQ(symbol.isNeedUpdate(CALLER_UPGRADE_APP, noData), 1);
}

TEST_F(NeedUpdate, MissesTheImageBeforeTheInformation) {
  FWUpdateSymbol symbol = bound();

  EXPECT_EQ(symbol.isNeedUpdate(CALLER_UPGRADE_APP, noData), -1);

  EXPECT_THAT(recording::messages(),
              ElementsAre(said("isNeedUpdate", kTried),
                          said("isNeedUpdate", "Error: Firmware binary file no exist (" + kImage + ")")));
}

TEST_F(NeedUpdate, MissesTheInformationFile) {
  FWUpdateSymbol symbol = bound();
  writeFile(kImage, "content");

  EXPECT_EQ(symbol.isNeedUpdate(CALLER_UPGRADE_APP, noData), -1);

  EXPECT_THAT(recording::messages(),
              ElementsAre(said("isNeedUpdate", kTried),
                          said("isNeedUpdate", "Error: Firmware json file no exist (" + kInfo + ")")));
}

TEST_F(NeedUpdate, RefusesAnUnreadableInformationFile) {
  FWUpdateSymbol symbol = bound();
  writeFile(kImage, "content");
  writeInformation(kBuiltin, "abc", "{");

  EXPECT_EQ(symbol.isNeedUpdate(CALLER_UPGRADE_APP, noData), -1);

  EXPECT_THAT(recording::messages(),
              ElementsAre(said("isNeedUpdate", kTried),
                          said("loadInformation", "Error: json loadInformation fail.(" + kInfo + ")\n"),
                          said("isNeedUpdate", "Error: json information load fail")));
}

TEST_F(NeedUpdate, RefusesAnImageWithAnotherChecksumAndKeepsTheDecision) {
  FWUpdateSymbol symbol = bound();
  writeImage(kBuiltin, "abc", "2.0", "content", 30);
  ASSERT_EQ(symbol.isNeedUpdate(CALLER_UPGRADE_APP, noData), 1);
  writeInformation(kBuiltin, "abc", "{\"crc\":1,\"expected_time\":99}");
  recording::reset();

  EXPECT_EQ(symbol.isNeedUpdate(CALLER_UPGRADE_APP, noData), -1);

  EXPECT_TRUE(symbol.getNeedUpdate());
  EXPECT_EQ(symbol.getExpectedUpdateTime(), 30U);
  EXPECT_THAT(
      recording::messages(),
      ElementsAre(said("isNeedUpdate", kTried), said("isNeedUpdate", "Error: abc Firmware CRC32 different")));
  EXPECT_THAT(recording::calls(), ElementsAre(kSetContext));
}

class ChangedImage : public Update, public ::testing::WithParamInterface<const char*> {};

TEST_P(ChangedImage, IsRefused) {
  FWUpdateSymbol symbol = bound();
  writeImage(kBuiltin, "abc", "2.0", "content");
  writeFile(kImage, GetParam());

  EXPECT_EQ(symbol.isNeedUpdate(CALLER_UPGRADE_APP, noData), -1);

  EXPECT_THAT(recording::texts(), ElementsAre(kTried, "Error: abc Firmware CRC32 different"));
}

INSTANTIATE_TEST_SUITE_P(NeedUpdate, ChangedImage, ::testing::Values("", "conten", "contentx", "Content"));

TEST_F(NeedUpdate, RefusesAnUnreadableImage) {
  FWUpdateSymbol symbol = bound();
  writeImage(kBuiltin, "abc");
  std::filesystem::permissions(kImage, std::filesystem::perms::none);
  const WithoutFileOverride asAnyone;

  EXPECT_EQ(symbol.isNeedUpdate(CALLER_UPGRADE_APP, noData), -1);

  EXPECT_THAT(recording::texts(),
              ElementsAre(kTried, "Error: binary file is NULL\n", "Error: abc Firmware CRC32 different"));
}

TEST_F(NeedUpdate, TakesAnUnreadableImageForOneWhoseChecksumIsZero) {
  FWUpdateSymbol symbol = bound();
  writeFile(kImage, "content");
  writeInformation(kBuiltin, "abc", "{\"crc\":0}");
  std::filesystem::permissions(kImage, std::filesystem::perms::none);
  const WithoutFileOverride asAnyone;

  EXPECT_EQ(symbol.isNeedUpdate(CALLER_UPGRADE_APP, noData), 1);
}

TEST_F(NeedUpdate, ReportsAFailedComparisonAndKeepsTheDecision) {
  FWUpdateSymbol symbol = bound();
  writeImage(kBuiltin, "abc");
  scripted::module("libabc").checkVersionResult = 3;

  EXPECT_EQ(symbol.isNeedUpdate(CALLER_UPGRADE_APP, noData), -1);

  EXPECT_FALSE(symbol.getNeedUpdate());
  EXPECT_EQ(symbol.getExpectedUpdateTime(), 0U);
  EXPECT_THAT(recording::messages(),
              ElementsAre(said("isNeedUpdate", kTried),
                          said("isNeedUpdate", "Error: abc Firmware CheckVersion Fail")));
}

TEST_F(NeedUpdate, LogsTheActiveVersionWithThePackagePathWhenNoneIsNeeded) {
  FWUpdateSymbol symbol = bound();
  writeImage(kBuiltin, "abc", "2.0", "content", 30);
  scripted::module("libabc").need = 0;
  scripted::module("libabc").activeVersion = "2.0";

  EXPECT_EQ(symbol.isNeedUpdate(CALLER_UPGRADE_APP, noData), 0);

  EXPECT_FALSE(symbol.getNeedUpdate());
  EXPECT_EQ(symbol.getExpectedUpdateTime(), 30U);
  EXPECT_THAT(
      recording::messages(),
      ElementsAre(said("isNeedUpdate", kTried),
                  said("isNeedUpdate", "Error: " + kPackageImage + " not need update, version is 2.0")));
  EXPECT_THAT(recording::calls(),
              ElementsAre(kSetContext, "libabc.checkVersion(\"2.0\", 0)",
                          "libabc.setContext(\"libabc\", 2, \"\")", "libabc.getActiveVersion()"));
}

TEST_F(NeedUpdate, LogsAnEmptyVersionWhenTheModuleWritesNone) {
  FWUpdateSymbol symbol = bound();
  writeImage(kBuiltin, "abc");
  scripted::module("libabc").need = 0;
  scripted::module("libabc").writeActiveVersion = [](char*) { return -1; };

  EXPECT_EQ(symbol.isNeedUpdate(CALLER_UPGRADE_APP, noData), 0);

  EXPECT_EQ(recording::texts().back(), "Error: " + kPackageImage + " not need update, version is ");
}

TEST_F(NeedUpdate, PassesANegativeAnswerOnAndMarksTheModule) {
  FWUpdateSymbol symbol = bound();
  writeImage(kBuiltin, "abc");
  scripted::module("libabc").need = -2;

  EXPECT_EQ(symbol.isNeedUpdate(CALLER_UPGRADE_APP, noData), -2);

  EXPECT_TRUE(symbol.getNeedUpdate());
}

TEST_F(NeedUpdate, CountsANegativeAnswerAsNoneForFactoryAutomation) {
  FWUpdateSymbol symbol = bound();
  writeImage(kBuiltin, "abc");
  scripted::module("libabc").need = -2;
  char data[] = "FACTORY_AUTOMATION";

  EXPECT_EQ(symbol.isNeedUpdate(CALLER_UPGRADE_APP, data), 0);

  EXPECT_FALSE(symbol.getNeedUpdate());
}

TEST_F(NeedUpdate, TakesOnlyTheWholeTextForFactoryAutomation) {
  FWUpdateSymbol symbol = bound();
  writeImage(kBuiltin, "abc");
  scripted::module("libabc").need = -2;
  for (const char* text : {"FACTORY_AUTOMATION2", "FACTORY_AUTOMATIO", "factory_automation"}) {
    std::string data = text;

    EXPECT_EQ(symbol.isNeedUpdate(CALLER_UPGRADE_APP, data.data()), -2) << text;
  }
}

TEST_F(NeedUpdate, PassesAnswersAboveOneOn) {
  FWUpdateSymbol symbol = bound();
  writeImage(kBuiltin, "abc");
  scripted::module("libabc").need = 5;
  char data[] = "FACTORY_AUTOMATION";

  EXPECT_EQ(symbol.isNeedUpdate(CALLER_UPGRADE_APP, data), 5);

  EXPECT_TRUE(symbol.getNeedUpdate());
}

TEST_F(NeedUpdate, AcceptsNullData) {
  FWUpdateSymbol symbol = bound();
  writeImage(kBuiltin, "abc");
  scripted::module("libabc").need = -1;

  EXPECT_EQ(symbol.isNeedUpdate(CALLER_UPGRADE_APP, nullptr), -1);

  EXPECT_TRUE(symbol.getNeedUpdate());
  EXPECT_THAT(recording::calls(), Contains("libabc.setContext(\"libabc\", 4, null)"));
}

TEST_F(NeedUpdate, MountsThePackageAndLeavesItMounted) {
  FWUpdateSymbol symbol = bound();
  writeFile(kPackageImage, "image");
  writeImage(kPackageMounts, "abcemp");
  std::filesystem::rename(kMountDirectory + "/abcemp.bin", kMountDirectory + "/abc.bin");

  EXPECT_EQ(symbol.isNeedUpdate(CALLER_QUERY, noData), 1);

  EXPECT_THAT(recording::calls(),
              ElementsAre(kUmountCall, kMountCall, "libabc.setContext(\"libabc\", 2, \"\")",
                          "libabc.checkVersion(\"2.0\", 0)"));
}

TEST_F(NeedUpdate, FailsWithoutAskingWhenThePackageCannotBeMounted) {
  FWUpdateSymbol symbol = bound();

  EXPECT_EQ(symbol.isNeedUpdate(CALLER_QUERY, noData), -1);

  EXPECT_THAT(recording::messages(),
              ElementsAre(said("isNeedUpdate", kTried),
                          said("mountEMPImage", "Error: file no exist (" + kPackageImage + ")")));
  EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(NeedUpdate, StillRunsForAnExtensionModule) {
  FWUpdateSymbol symbol = bound("libEXT-abc");

  EXPECT_EQ(symbol.isNeedUpdate(CALLER_UPGRADE_APP, noData), -1);

  EXPECT_THAT(recording::texts(),
              ElementsAre("libEXT-abc Firmware isNeedUpdateModules Try()",
                          "Error: Firmware binary file no exist (/lib/firmware/ext//.bin)"));
}

TEST_F(NeedUpdate, NeedsAUsbDriveForAFactoryRequest) {
  FWUpdateSymbol symbol = bound();

  EXPECT_EQ(symbol.isNeedUpdate(CALLER_FACTORY, noData), -1);

  EXPECT_THAT(recording::texts(), ElementsAre(kTried, "Error: Usb mount path Not found.",
                                              "Error: Firmware binary file no exist ()"));
}

// ---- updateFirmware ---------------------------------------------------------------

TEST_F(UpdateFirmware, HandsTheModuleTheImageAndItsChecksum) {
  FWUpdateSymbol symbol = bound();
  writeImage(kBuiltin, "abc", "2.0", "content");

  EXPECT_EQ(symbol.updateFirmware(CALLER_UPGRADE_APP, noData), 0);

  EXPECT_THAT(recording::everything(),
              ElementsAre("log: abc Firmware Update Try", kSetContext, "libabc.checkVersion(\"2.0\", -1)",
                          "log: ========== [ abc update start ] ==========", doUpdateCall(kImage, "content"),
                          "log: ========== [ abc update succeeded ] =========="));
  EXPECT_THAT(recording::messages(),
              ElementsAre(said("updateFirmware", "abc Firmware Update Try"),
                          said("updateFirmware", "========== [ abc update start ] =========="),
                          said("updateFirmware", "========== [ abc update succeeded ] ==========")));
  EXPECT_THAT(recording::traceFormats(),
              ElementsAre("%s Firmware Update Try", "========== [ %s update start ] ==========",
                          "========== [ %s update succeeded ] =========="));
}

TEST_F(UpdateFirmware, RefusesAnExtensionModuleSilently) {
  FWUpdateSymbol symbol = bound("libEXT-abc");

  EXPECT_EQ(symbol.updateFirmware(CALLER_UPGRADE_APP, noData), -1);

  EXPECT_THAT(recording::everything(), IsEmpty());
}

TEST_F(UpdateFirmware, MissesTheInformationBeforeTheImage) {
  FWUpdateSymbol symbol = bound();

  EXPECT_EQ(symbol.updateFirmware(CALLER_UPGRADE_APP, noData), -1);

  EXPECT_THAT(recording::texts(),
              ElementsAre("abc Firmware Update Try", "Error: Firmware json file no exist (" + kInfo + ")"));
}

TEST_F(UpdateFirmware, LoadsTheInformationBeforeItMissesTheImage) {
  FWUpdateSymbol symbol = bound();
  writeInformation(kBuiltin, "abc", "{");

  EXPECT_EQ(symbol.updateFirmware(CALLER_UPGRADE_APP, noData), -1);

  EXPECT_THAT(recording::messages(),
              ElementsAre(said("updateFirmware", "abc Firmware Update Try"),
                          said("loadInformation", "Error: json loadInformation fail.(" + kInfo + ")\n"),
                          said("updateFirmware", "Error: json information load fail")));
}

TEST_F(UpdateFirmware, MissesTheImage) {
  FWUpdateSymbol symbol = bound();
  writeInformation(kBuiltin, "abc", "{}");

  EXPECT_EQ(symbol.updateFirmware(CALLER_UPGRADE_APP, noData), -1);

  EXPECT_THAT(recording::messages(),
              ElementsAre(said("updateFirmware", "abc Firmware Update Try"),
                          said("updateFirmware", "Error: Firmware binary file no exist (" + kImage + ")")));
}

TEST_F(UpdateFirmware, StopsWhenTheModuleRefusesTheContext) {
  FWUpdateSymbol symbol = bound();
  writeImage(kBuiltin, "abc");
  scripted::module("libabc").setContextResult = 9;

  EXPECT_EQ(symbol.updateFirmware(CALLER_UPGRADE_APP, noData), -1);

  EXPECT_THAT(recording::everything(), ElementsAre("log: abc Firmware Update Try", kSetContext));
}

TEST_F(UpdateFirmware, ReportsAFailedComparison) {
  FWUpdateSymbol symbol = bound();
  writeImage(kBuiltin, "abc");
  scripted::module("libabc").checkVersionResult = -4;

  EXPECT_EQ(symbol.updateFirmware(CALLER_UPGRADE_APP, noData), -1);

  EXPECT_THAT(recording::messages(),
              ElementsAre(said("updateFirmware", "abc Firmware Update Try"),
                          said("updateFirmware", "Error: abc Firmware CheckVersion Fail")));
}

TEST_F(UpdateFirmware, SucceedsWithoutUpdatingWhenNoneIsNeeded) {
  for (const int need : {0, -3}) {
    FWUpdateSymbol symbol = bound();
    writeImage(kBuiltin, "abc");
    scripted::module("libabc").need = need;

    EXPECT_EQ(symbol.updateFirmware(CALLER_UPGRADE_APP, noData), 0);

    EXPECT_THAT(recording::messages(),
                ElementsAre(said("updateFirmware", "abc Firmware Update Try"),
                            said("updateFirmware", "Error: abc Firmware not need update")));
    EXPECT_THAT(recording::calls(), ElementsAre(kSetContext, "libabc.checkVersion(\"2.0\", -1)"));
  }
}

TEST_F(UpdateFirmware, DoesNotLookIntoTheImageWhenNoneIsNeeded) {
  FWUpdateSymbol symbol = bound();
  writeImage(kBuiltin, "abc");
  writeFile(kImage, "something else");
  scripted::module("libabc").need = 0;

  EXPECT_EQ(symbol.updateFirmware(CALLER_UPGRADE_APP, noData), 0);

  EXPECT_THAT(recording::texts(),
              ElementsAre("abc Firmware Update Try", "Error: abc Firmware not need update"));
}

TEST_F(UpdateFirmware, RefusesAnImageThatChangedSinceTheDecision) {
  FWUpdateSymbol symbol = bound();
  writeImage(kBuiltin, "abc");
  writeFile(kImage, "something else");

  EXPECT_EQ(symbol.updateFirmware(CALLER_UPGRADE_APP, noData), -1);

  EXPECT_THAT(recording::messages(),
              ElementsAre(said("updateFirmware", "abc Firmware Update Try"),
                          said("updateFirmware", "Error: abc Firmware crc32 different")));
}

TEST_F(UpdateFirmware, ReturnsTheModulesOwnFailureWithTheErrorOfThatMoment) {
  FWUpdateSymbol symbol = bound();
  writeImage(kBuiltin, "abc", "2.0", "content");
  scripted::module("libabc").doUpdateResult = 5;
  scripted::module("libabc").errorNumber = ENOSPC;

  EXPECT_EQ(symbol.updateFirmware(CALLER_UPGRADE_APP, noData), 5);

  EXPECT_THAT(recording::messages(),
              ElementsAre(said("updateFirmware", "abc Firmware Update Try"),
                          said("updateFirmware", "========== [ abc update start ] =========="),
                          said("updateFirmware",
                               "Error: abc Firmware doUpdate Fail 5 (28:No space left on device)")));
  EXPECT_EQ(recording::traceFormats().back(), "Error: %s Firmware doUpdate Fail %d (%d:%m)");
  const int numbers[] = {5, ENOSPC};
  EXPECT_EQ(recording::traceRecords().back().payload,
            "\x03"
            "abc" +
                std::string(reinterpret_cast<const char*>(numbers), sizeof(numbers)));
}

TEST_F(UpdateFirmware, NamesTheThreadAfterTheFirmware) {
  scripted::module("libabc").empId = "emplongfirmwarename";
  FWUpdateSymbol symbol = bound();
  writeImage(kBuiltin, "longfirmwarename");
  std::array<char, 32> name{};

  std::thread([&] {
    symbol.updateFirmware(CALLER_UPGRADE_APP, noData);
    pthread_getname_np(pthread_self(), name.data(), name.size());
  }).join();

  EXPECT_STREQ(name.data(), "longfirmwarenam");
}

TEST_F(UpdateFirmware, RemovesThePackageImageAndUnmountsAfterSuccess) {
  FWUpdateSymbol symbol = bound();
  writeFile(kPackageImage, "image");
  writeImage(kPackageMounts, "abcemp", "2.0", "content");
  std::filesystem::rename(kMountDirectory + "/abcemp.bin", kMountDirectory + "/abc.bin");
  bool imageThereAtUnmount = true;
  int unmounts = 0;
  recording::answers().unmount = [&](const std::string&, int&) {
    imageThereAtUnmount = exists(kPackageImage);
    ++unmounts;
    return 0;
  };

  EXPECT_EQ(symbol.updateFirmware(CALLER_QUERY, noData), 0);

  EXPECT_FALSE(exists(kPackageImage));
  EXPECT_FALSE(imageThereAtUnmount) << "the image goes first, then the mount";
  EXPECT_EQ(unmounts, 2);
  EXPECT_THAT(recording::calls(),
              ElementsAre(kUmountCall, kMountCall, "libabc.setContext(\"libabc\", 2, \"\")",
                          "libabc.checkVersion(\"2.0\", -1)",
                          doUpdateCall(kMountDirectory + "/abc.bin", "content"), kUmountCall));
  EXPECT_EQ(recording::messages().back(), said("unmountEMPImage", "EMP UMount Success " + kPackageImage));
}

TEST_F(UpdateFirmware, KeepsThePackageImageAfterAnUpdateFromElsewhere) {
  FWUpdateSymbol symbol = bound();
  writeFile(kPackageImage, "image");
  writeImage(kBuiltin, "abc");

  EXPECT_EQ(symbol.updateFirmware(CALLER_UPGRADE_APP, noData), 0);

  EXPECT_TRUE(exists(kPackageImage));
}

TEST_F(UpdateFirmware, SucceedsAlsoWhenThePackageCannotBeUnmounted) {
  FWUpdateSymbol symbol = bound();
  writePackage("abcemp", "abc");
  recording::answers().unmount = [](const std::string&, int&) { return -1; };

  EXPECT_EQ(symbol.updateFirmware(CALLER_QUERY, noData), 0);

  EXPECT_EQ(recording::messages().back(),
            said("unmountEMPImage", "Error: Firmware EMP UMount Fail.(abcemp)"));
  scripted::module("libabc").need = 0;
  writeFile(kPackageImage, "image");
  EXPECT_EQ(symbol.updateFirmware(CALLER_QUERY, noData), 0);
}

TEST_F(UpdateFirmware, UnmountsButKeepsThePackageImageWhenNoneIsNeeded) {
  FWUpdateSymbol symbol = bound();
  writeFile(kPackageImage, "image");
  writeImage(kPackageMounts, "abcemp");
  std::filesystem::rename(kMountDirectory + "/abcemp.bin", kMountDirectory + "/abc.bin");
  scripted::module("libabc").need = 0;

  EXPECT_EQ(symbol.updateFirmware(CALLER_QUERY, noData), 0);

  EXPECT_TRUE(exists(kPackageImage));
  EXPECT_EQ(recording::calls().back(), kUmountCall);
}

TEST_F(UpdateFirmware, LeavesThePackageMountedAfterAFailure) {
  writeFile(kPackageImage, "image");
  writeImage(kPackageMounts, "abcemp");
  std::filesystem::rename(kMountDirectory + "/abcemp.bin", kMountDirectory + "/abc.bin");
  const auto fails = [this](const std::function<void(scripted::Module&)>& break_) {
    scripted::resetModules();
    FWUpdateSymbol symbol = bound();
    break_(scripted::module("libabc"));
    EXPECT_NE(symbol.updateFirmware(CALLER_QUERY, noData), 0);
    const auto calls = recording::calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), kUmountCall), 1) << "only the one before the mount";
    EXPECT_TRUE(exists(kPackageImage));
  };

  fails([](scripted::Module& module) { module.setContextResult = 1; });
  fails([](scripted::Module& module) { module.checkVersionResult = 1; });
  fails([](scripted::Module& module) { module.doUpdateResult = 1; });
  writeFile(kMountDirectory + "/abc.bin", "something else");
  fails([](scripted::Module&) {});
}

TEST_F(UpdateFirmware, FailsWhenThePackageIsMissing) {
  FWUpdateSymbol symbol = bound();

  EXPECT_EQ(symbol.updateFirmware(CALLER_QUERY, noData), -1);

  EXPECT_THAT(recording::texts(),
              ElementsAre("abc Firmware Update Try", "Error: file no exist (" + kPackageImage + ")"));
}

TEST_F(UpdateFirmware, AdmitsOneFileUpdateAtATimeButNotAgainstProcessUpdates) {
  scripted::module("libother").empId = "otheremp";
  FWUpdateSymbol first = bound("libabc");
  FWUpdateSymbol second = bound("libother");
  FWUpdateSymbol process = bound("libEXT-abc");
  writeImage(kBuiltin, "abc", "2.0", "content");
  writeImage(kBuiltin, "other", "2.0", "content");
  HeldUpdate held("libabc");

  OtherThread one([&] { first.updateFirmware(CALLER_UPGRADE_APP, noData); });
  held.waitUntilEntered();
  OtherThread two([&] { second.updateFirmware(CALLER_UPGRADE_APP, noData); });
  two.waitUntilBlocked("other");
  EXPECT_EQ(process.runProcess(CALLER_UPGRADE_APP, noData), 0) << "does not wait for the file update";
  held.leave();
  one.join();
  two.join();

  EXPECT_THAT(
      recording::calls(),
      ElementsAre(kSetContext, "libabc.checkVersion(\"2.0\", -1)", doUpdateCall(kImage, "content"),
                  "libEXT-abc.setContext(\"libEXT-abc\", 4, \"\")", "libEXT-abc.doUpdate(\"libEXT-abc\", 0)",
                  "libabc ends", "libother.setContext(\"libother\", 4, \"\")",
                  "libother.checkVersion(\"2.0\", -1)", StartsWith("libother.doUpdate(")));
}

// Mostly for a thread checker: it sees what the values seldom show.
TEST_F(UpdateFirmware, SharesTheInformationWithQueriesWithoutMixingIt) {
  FWUpdateSymbol symbol = bound();
  const std::string versions[] = {std::string(100, 'b'), std::string(200, 's')};
  writeImage(kBuiltin, "abc", versions[0]);
  writeImage(kSbox, "abc", versions[1]);
  std::atomic<int> mixed{0};
  scripted::module("libabc").checkVersion = [&](const char* version, int* need) {
    mixed += version != versions[0] && version != versions[1];
    *need = 0;
    return 0;
  };
  constexpr int kRounds = 1000;

  std::thread query([&] {
    for (int i = 0; i < kRounds; ++i) {
      symbol.isNeedUpdate(CALLER_LSM, noData);
    }
  });
  for (int i = 0; i < kRounds; ++i) {
    symbol.updateFirmware(CALLER_UPGRADE_APP, noData);
  }
  query.join();

  EXPECT_EQ(mixed, 0);
}

// ---- runProcess -------------------------------------------------------------------

TEST_F(RunProcess, HandsTheModuleItsOwnNameAndZero) {
  FWUpdateSymbol symbol = bound("libEXT-abc");
  char data[] = "text";

  EXPECT_EQ(symbol.runProcess(CALLER_LSM, data), 0);

  EXPECT_THAT(recording::everything(), ElementsAre("log:  Firmware runProcess Try",
                                                   "libEXT-abc.setContext(\"libEXT-abc\", 5, \"text\")",
                                                   "libEXT-abc.doUpdate(\"libEXT-abc\", 0)"));
}

TEST_F(RunProcess, ChecksNothingForAnOrdinaryModule) {
  FWUpdateSymbol symbol = bound();
  scripted::module("libabc").need = 0;

  EXPECT_EQ(symbol.runProcess(CALLER_LSM, noData), 0);

  EXPECT_THAT(recording::everything(),
              ElementsAre("log: abc Firmware runProcess Try", "libabc.setContext(\"libabc\", 5, \"\")",
                          "libabc.doUpdate(\"libabc\", 0)"));
}

TEST_F(RunProcess, StopsWhenTheModuleRefusesTheContext) {
  FWUpdateSymbol symbol = bound();
  scripted::module("libabc").setContextResult = 1;

  EXPECT_EQ(symbol.runProcess(CALLER_LSM, noData), -1);

  EXPECT_THAT(recording::calls(), Not(Contains("libabc.doUpdate(\"libabc\", 0)")));
}

TEST_F(RunProcess, ReportsTheModulesFailureAsMinusOne) {
  FWUpdateSymbol symbol = bound();
  scripted::module("libabc").doUpdateResult = 8;
  scripted::module("libabc").errorNumber = EIO;

  EXPECT_EQ(symbol.runProcess(CALLER_LSM, noData), -1);

  EXPECT_THAT(recording::messages(),
              ElementsAre(said("runProcess", "abc Firmware runProcess Try"),
                          said("runProcess", "Error: libabc runProcess Fail (5:Input/output error)")));
  EXPECT_THAT(recording::traceFormats(),
              ElementsAre("%s Firmware runProcess Try", "Error: %s runProcess Fail (%d:%m)"));
}

TEST_F(RunProcess, NamesTheCallingThread) {
  FWUpdateSymbol symbol = bound();
  std::array<char, 32> name{};

  std::thread([&] {
    symbol.runProcess(CALLER_LSM, noData);
    pthread_getname_np(pthread_self(), name.data(), name.size());
  }).join();

  EXPECT_STREQ(name.data(), "abc");
}

TEST_F(RunProcess, AdmitsOneProcessUpdateAtATime) {
  scripted::module("libother").empId = "otheremp";
  FWUpdateSymbol first = bound("libabc");
  FWUpdateSymbol second = bound("libother");
  HeldUpdate held("libabc");

  OtherThread one([&] { first.runProcess(CALLER_LSM, noData); });
  held.waitUntilEntered();
  OtherThread two([&] { second.runProcess(CALLER_LSM, noData); });
  two.waitUntilBlocked("other");
  held.leave();
  one.join();
  two.join();

  EXPECT_THAT(
      recording::calls(),
      ElementsAre("libabc.setContext(\"libabc\", 5, \"\")", "libabc.doUpdate(\"libabc\", 0)", "libabc ends",
                  "libother.setContext(\"libother\", 5, \"\")", "libother.doUpdate(\"libother\", 0)"));
}

TEST_F(RunProcess, LetsTheModulesExceptionThrough) {
  FWUpdateSymbol symbol = bound();
  scripted::module("libabc").doUpdate = [](const char*, unsigned long) -> int {
    throw std::logic_error("broken");
  };

  EXPECT_THROW(symbol.runProcess(CALLER_LSM, noData), std::logic_error);

  scripted::module("libabc").doUpdate = nullptr;
  EXPECT_EQ(symbol.runProcess(CALLER_LSM, noData), 0) << "the mutex was given back";
}
