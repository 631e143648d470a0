#include "isolation/child-story.h"

#include <gtest/gtest.h>

#include <csignal>

#include "isolation/crash-report.h"
#include "library-messages.h"
#include "library/log-meanings.h"
#include "usb/usb-packages.h"

namespace {

using tool::ChildStory;
using tool::LogMessage;
using tool::Step;

constexpr ChildStory::Seconds kPatience{120};

LogMessage message(const char* function, const char* format, std::vector<std::string> arguments = {}) {
  LogMessage one;
  one.function = function;
  one.format = format;
  one.arguments = std::move(arguments);
  return one;
}

// A story up to the update that began to wait for the lock.
ChildStory waiting() {
  ChildStory story("libtuner");
  story.add(tool::StepTold{Step::Load, "libtuner", "tunerfw"});
  story.add(message("isNeedUpdate", MESSAGE_CHECK_BEGINS, {"libtuner", "tunerfw"}));
  story.add(message("update_timeout_wrapper", MESSAGE_LOCK_WANTED, {"tunerfw", "10"}));
  return story;
}

TEST(ChildStory, GivesAModuleThatIsAskedThePatience) {
  ChildStory story("libtuner");

  story.add(tool::StepTold{Step::Version, "libpanel", "panelfw"});

  EXPECT_EQ(story.module(), "libpanel");
  EXPECT_EQ(story.allowedSilence(kPatience), kPatience);
}

TEST(ChildStory, WaitsForTheLockForEver) {
  const ChildStory story = waiting();

  EXPECT_EQ(story.step(), Step::Wait);
  EXPECT_FALSE(story.allowedSilence(kPatience));
  EXPECT_TRUE(story.hasUsedLock());
}

TEST(ChildStory, GivesAnUpdateTheLibrarysLimitAndAMargin) {
  ChildStory story = waiting();

  story.add(message("updateFirmware", MESSAGE_LOCK_TAKEN, {"tunerfw"}));

  EXPECT_EQ(story.step(), Step::Write);
  EXPECT_EQ(story.allowedSilence(kPatience), ChildStory::Seconds(10 + 2 + 10));
  EXPECT_EQ(story.allowedSilence(ChildStory::Seconds(1)), ChildStory::Seconds(10 + 2 + 1));
}

TEST(ChildStory, SetsNoLimitToWhatTheLibrarySetsNone) {
  ChildStory procedure("libEXT-remote");
  procedure.add(message("runProcess", MESSAGE_PROCEDURE_BEGINS, {""}));
  ChildStory package("");
  package.add(tool::StepTold{Step::Load, "libtuner", "tunerfw"});
  package.add(message("updateUSB", MESSAGE_WRITE_BEGINS, {"tunerfw"}));

  EXPECT_FALSE(procedure.allowedSilence(kPatience));
  EXPECT_EQ(procedure.module(), "libEXT-remote");
  EXPECT_FALSE(package.allowedSilence(kPatience));
  EXPECT_EQ(package.module(), "libtuner");
}

TEST(ChildStory, FindsThePackagesModuleByTheFile) {
  ChildStory story("");
  story.add(tool::StepTold{Step::Load, "libtuner", "tunerfw"});
  story.add(tool::StepTold{Step::Load, "libpanel", "panelfw"});

  story.add(message("zaq_verify", "signed", {"UserCaller", "/opt/media/USBDriveA/tunerfw.bin"}));

  EXPECT_EQ(story.module(), "libtuner");
  EXPECT_EQ(story.step(), Step::Check);
}

TEST(ChildStory, EndsAnUpdateWithItsTimeOut) {
  ChildStory story = waiting();
  story.add(message("updateFirmware", MESSAGE_LOCK_TAKEN, {"tunerfw"}));

  story.add(message("update_timeout_wrapper", "%s", {"tunerfw update timeout"}));

  EXPECT_EQ(story.step(), Step::Finish);
  EXPECT_EQ(story.module(), "libtuner");
  EXPECT_EQ(story.allowedSilence(kPatience), kPatience);
}

TEST(ChildStory, StandsWhatAModuleWroteIntoIt) {
  ChildStory story("libtuner");

  story.add(message("update_timeout_wrapper", MESSAGE_LOCK_WANTED));
  story.add(message("update_timeout_wrapper", MESSAGE_LOCK_WANTED, {"tunerfw", "soon"}));
  story.add(message("isNeedUpdate", MESSAGE_CHECK_BEGINS));

  EXPECT_TRUE(story.hasUsedLock());
}

TEST(Datagrams, ComeBackAsTheyWere) {
  LogMessage one = message("updateFirmware", MESSAGE_LOCK_TAKEN, {"tunerfw", "x\n\"y"});
  one.priority = 6;
  one.errorNumber = 5;
  one.time = std::chrono::steady_clock::now();

  const auto back = tool::fromDatagram(tool::toDatagram(one));

  ASSERT_TRUE(back);
  const auto& again = std::get<LogMessage>(*back);
  EXPECT_EQ(again.format, one.format);
  EXPECT_EQ(again.arguments, one.arguments);
  EXPECT_EQ(again.priority, 6);
  EXPECT_EQ(again.errorNumber, 5);
  EXPECT_EQ(again.time, one.time);
  EXPECT_EQ(std::get<tool::ResultTold>(*tool::fromDatagram(tool::toDatagram(tool::ResultTold{7}))).exitCode,
            7);
}

TEST(Datagrams, AreNotMadeOfWhatIsNone) {
  for (const char* text : {"", "{", "[]", "7", "{\"step\":99}", "{\"step\":\"x\"}", "{\"log\":7}",
                           "{\"exitCode\":{}}", "{\"log\":{\"priority\":[]}}"}) {
    EXPECT_FALSE(tool::fromDatagram(text)) << text;
  }
}

TEST(ChildEnd, TellsACrashFromAKill) {
  const ChildStory story = waiting();

  EXPECT_EQ(tool::explainCrash(story, SIGSEGV).message,
            "libtuner crashed (SIGSEGV, Segmentation fault) while its update waited for another one.");
  EXPECT_EQ(tool::explainCrash(story, SIGKILL).message,
            "The process that worked for libtuner was killed (SIGKILL, Killed) while its update waited for "
            "another one.");
}

TEST(ChildEnd, NamesProgressBesideTheStepOfACrashAndNotOfAHang) {
  ChildStory story = waiting();
  story.add(tool::ProgressTold{true});

  EXPECT_NE(tool::explainCrash(story, SIGSEGV).message.find("or when it was asked for its progress"),
            std::string::npos);
  EXPECT_EQ(tool::explainHang(story, kPatience).message.find("progress"), std::string::npos);
}

}  // namespace
