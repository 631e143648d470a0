// SPDX-License-Identifier: Apache-2.0
// What a child process tells of itself, and how that is put in words when it has died.
#include "isolation/child-record.h"

#include <gtest/gtest.h>

#include <csignal>

#include "isolation/crash-report.h"
#include "isolation/supervised.h"
#include "library-messages.h"
#include "library/library-log.h"

namespace {

using tool::ChildRecord;
using tool::Seconds;
using tool::Step;
namespace supervised = tool::supervised;

constexpr Seconds kPatience{120};

void hear(const char* function, const char* format, std::vector<std::string> arguments = {}) {
  tool::LogMessage one;
  one.function = function;
  one.format = format;
  one.arguments = std::move(arguments);
  supervised::tellMessage(one);
}

// This process as one that is watched.
class WatchedCommand : public ::testing::Test {
 protected:
  WatchedCommand() {
    std::string("libtuner").copy(record_.module, sizeof record_.module - 1);
    supervised::begin(record_);
  }

  // Up to the update that began to wait for the lock.
  static void wait() {
    supervised::tellStep(Step::Load, "libtuner", "tunerfw");
    hear("isNeedUpdate", MESSAGE_CHECK_BEGINS, {"libtuner", "tunerfw"});
    hear("update_timeout_wrapper", MESSAGE_LOCK_WANTED, {"tunerfw", "10"});
  }
  static void write() {
    wait();
    hear("updateFirmware", MESSAGE_LOCK_TAKEN, {"tunerfw"});
  }

  std::optional<Seconds> allowed(Seconds patience = kPatience) const {
    return tool::allowedSilence(record_, patience);
  }

  ChildRecord record_{};
};

TEST_F(WatchedCommand, GivesAModuleThatIsAskedThePatience) {
  supervised::tellStep(Step::Version, "libpanel", "panelfw");

  EXPECT_EQ(moduleOf(record_), "libpanel");
  EXPECT_EQ(allowed(), kPatience);
}

TEST_F(WatchedCommand, WaitsForTheLockForEver) {
  wait();

  EXPECT_EQ(record_.step, Step::Wait);
  EXPECT_FALSE(allowed());
  EXPECT_EQ(record_.usedLock, 1U);
}

TEST_F(WatchedCommand, GivesAnUpdateTheLibrarysLimitAndAMargin) {
  write();

  EXPECT_EQ(record_.step, Step::Write);
  EXPECT_EQ(allowed(), Seconds(10 + 2 + 10));
  EXPECT_EQ(allowed(Seconds(1)), Seconds(10 + 2 + 1));
}

TEST_F(WatchedCommand, SetsNoLimitToAProcedureOfAModulesOwn) {
  supervised::tellStep(Step::Check, "libEXT-remote");
  hear("runProcess", MESSAGE_PROCEDURE_BEGINS, {""});

  EXPECT_FALSE(allowed());
  EXPECT_EQ(moduleOf(record_), "libEXT-remote");
}

TEST_F(WatchedCommand, SetsNoLimitToAPackageAndFindsItsModuleByTheFirmware) {
  supervised::tellStep(Step::Load, "libtuner", "tunerfw");
  supervised::tellStep(Step::Load, "libpanel", "panelfw");

  hear("updateUSB", MESSAGE_WRITE_BEGINS, {"tunerfw"});

  EXPECT_FALSE(allowed());
  EXPECT_EQ(moduleOf(record_), "libtuner");
}

TEST_F(WatchedCommand, FindsThePackagesModuleByTheFile) {
  supervised::tellStep(Step::Load, "libtuner", "tunerfw");
  supervised::tellStep(Step::Load, "libpanel", "panelfw");

  hear("zaq_verify", MESSAGE_SIGNATURE_VALID, {"UserCaller", "/opt/media/USBDriveA/tunerfw.bin"});

  EXPECT_EQ(moduleOf(record_), "libtuner");
  EXPECT_EQ(record_.step, Step::Check);
}

TEST_F(WatchedCommand, EndsAnUpdateWithItsTimeOut) {
  write();

  hear("update_timeout_wrapper", MESSAGE_TIMED_OUT, {"tunerfw update timeout"});

  EXPECT_EQ(record_.step, Step::Finish);
  EXPECT_EQ(moduleOf(record_), "libtuner");
  EXPECT_EQ(allowed(), kPatience);
}

TEST_F(WatchedCommand, StandsWhatAModuleWroteIntoTheLog) {
  hear("update_timeout_wrapper", MESSAGE_LOCK_WANTED);
  hear("update_timeout_wrapper", MESSAGE_LOCK_WANTED, {"tunerfw", "soon"});
  hear("isNeedUpdate", MESSAGE_CHECK_BEGINS);
  hear("loop_mount", MESSAGE_MOUNT_REQUESTED);

  EXPECT_EQ(record_.usedLock, 1U);
  EXPECT_EQ(record_.givesUpAt, 0U);
}

TEST_F(WatchedCommand, KeepsTheStepAtMessagesThatTellNone) {
  supervised::tellStep(Step::Version, "libtuner");

  hear("fw_getVersion", MESSAGE_VERSION_ANSWERED, {"0", "libtuner"});

  EXPECT_EQ(record_.step, Step::Version);
}

TEST_F(WatchedCommand, GetsOnWithWhatIsToldAndNotWithProgress) {
  const std::uint32_t before = record_.told;

  supervised::tellProgress(true);
  EXPECT_EQ(record_.told, before);

  hear("", MESSAGE_POWER_HELD);
  EXPECT_NE(record_.told, before);
}

TEST_F(WatchedCommand, NamesTheDirectoriesThatItMountedOn) {
  hear("loop_mount", MESSAGE_MOUNT_REQUESTED, {"-o ro /p/tunerempfw.img /emps/tunerempfw"});
  hear("loop_mount", MESSAGE_MOUNT_REQUESTED, {"-o ro /p/wifiempfw.img /emps/wifiempfw"});

  EXPECT_EQ(mountedBy(record_), (std::vector<std::string>{"/emps/tunerempfw", "/emps/wifiempfw"}));
}

TEST_F(WatchedCommand, KnowsThatItsModuleIsUpdatedAlready) {
  write();
  hear("updateFirmware", MESSAGE_WRITE_SUCCEEDED, {"tunerfw"});
  EXPECT_EQ(record_.updated, 1U);

  supervised::tellStep(Step::Version, "libpanel");
  EXPECT_EQ(record_.updated, 0U) << "another one is not";
}

TEST_F(WatchedCommand, HasAResultOnceItIsTold) {
  EXPECT_FALSE(resultOf(record_));

  supervised::tellResult(0);

  EXPECT_EQ(resultOf(record_), 0);
  EXPECT_EQ(record_.step, Step::End);
}

TEST(ChildRecord, IsReadWhateverAModuleWroteOverIt) {
  ChildRecord record{};
  record.step = static_cast<Step>(4711);
  std::fill(std::begin(record.module), std::end(record.module), 'x');
  std::fill(std::begin(record.mounted), std::end(record.mounted), 'y');

  EXPECT_EQ(moduleOf(record).size(), sizeof record.module);
  EXPECT_EQ(mountedBy(record).size(), 1U);
  EXPECT_EQ(tool::allowedSilence(record, kPatience), kPatience);
  EXPECT_STREQ(tool::idOf(record.step), "start");
}

TEST_F(WatchedCommand, HasACrashToldFromAKill) {
  wait();

  EXPECT_EQ(tool::explainCrash(record_, SIGSEGV).message,
            "libtuner crashed (SIGSEGV, Segmentation fault) while its update waited for another one.");
  EXPECT_EQ(tool::explainCrash(record_, SIGKILL).message,
            "The process that worked for libtuner was killed (SIGKILL, Killed) while its update waited for "
            "another one.");
}

TEST_F(WatchedCommand, HasProgressNamedBesideTheStepOfACrashAndNotOfAHang) {
  wait();
  supervised::tellProgress(true);

  EXPECT_NE(tool::explainCrash(record_, SIGSEGV).message.find("or when it was asked for its progress"),
            std::string::npos);
  EXPECT_EQ(tool::explainHang(record_, kPatience).message.find("progress"), std::string::npos);
}

TEST(CrashOfACommand, PointsAtTheLogWhenItMayHaveBeenAnyModule) {
  ChildRecord child{};
  child.step = Step::Finish;

  const tool::Finding finding = tool::explainCrash(child, SIGSEGV);

  EXPECT_EQ(finding.message.rfind("A module crashed (SIGSEGV", 0), 0u) << finding.message;
  EXPECT_EQ(finding.remedy, "See the log (--log), and check the versions: fw-update list");
}

TEST(CrashOfACommand, WroteNothingBeforeTheUpdate) {
  for (const Step step : {Step::Start, Step::Load, Step::Version, Step::Check}) {
    ChildRecord child{};
    child.step = step;

    EXPECT_EQ(tool::explainCrash(child, SIGSEGV).remedy.rfind("Nothing was written.", 0), 0u);

    child.updated = 1;
    EXPECT_EQ(tool::explainCrash(child, SIGSEGV).remedy.find("Nothing was written."), std::string::npos);
  }
}

}  // namespace
