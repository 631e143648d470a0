// SPDX-License-Identifier: Apache-2.0
// What the library's messages tell of updates, message by message.
#include "update-tracker.h"

#include <gmock/gmock.h>

#include "library-messages.h"

namespace {

using fwmessages::Activity;
using fwmessages::Event;
using fwmessages::Result;
using fwmessages::Stage;
using fwmessages::UpdateTracker;
using ::testing::ElementsAre;
using ::testing::SizeIs;

constexpr std::uint32_t kClient = 1;
constexpr std::uint32_t kWorker = 2;

// Takes messages as the library logs them; each comes a second after the one before.
class Story {
 public:
  Story& say(std::uint32_t thread, const char* format, std::vector<std::string> arguments = {},
             const char* function = "") {
    fwmessages::Logged logged;
    logged.event = fwmessages::eventOf(format, function, arguments.size());
    logged.time = ++second_ * 1000000000;
    logged.threadId = thread;
    logged.text = format;
    logged.arguments = std::move(arguments);
    tracker_.take(logged);
    return *this;
  }

  Story& untilLock() {
    say(kClient, MESSAGE_CHECK_BEGINS, {"libtuner", "tunerfw"});
    return say(kClient, MESSAGE_LOCK_WANTED, {"tunerfw", "10"});
  }
  Story& untilWrite() {
    untilLock().say(kWorker, MESSAGE_LOCK_TAKEN, {"tunerfw"});
    return say(kWorker, MESSAGE_WRITE_BEGINS, {"tunerfw"}, "updateFirmware");
  }
  Story& timesOut() {
    return say(kClient, MESSAGE_TIMED_OUT, {"tunerfw update timeout"}, "update_timeout_wrapper");
  }

  void finish() { tracker_.finish(second_ * 1000000000, true); }

  const UpdateTracker& tracker() const { return tracker_; }
  const fwmessages::Update& last() const { return tracker_.updates().back(); }

 private:
  UpdateTracker tracker_;
  std::int64_t second_ = 0;
};

TEST(UpdateEvents, AreTheLibrarysMessagesWithTheirArgumentsAndFunctions) {
  EXPECT_EQ(fwmessages::eventOf(MESSAGE_LOCK_WANTED, "", 2), Event::LockWanted);
  EXPECT_EQ(fwmessages::eventOf(MESSAGE_LOCK_WANTED, "", 1), Event::Other);
  EXPECT_EQ(fwmessages::eventOf(MESSAGE_WRITE_BEGINS, "updateUSB", 1), Event::PackageWriteBegins);
  EXPECT_EQ(fwmessages::eventOf(MESSAGE_WRITE_BEGINS, "updateFirmware", 1), Event::WriteBegins);
  EXPECT_EQ(fwmessages::eventOf(MESSAGE_TIMED_OUT, "elsewhere", 1), Event::Other);
  EXPECT_EQ(fwmessages::eventOf(MESSAGE_CHECKSUM_DIFFERS, "", 1), Event::Error);
}

TEST(UpdateTracker, KnowsWhoWaitsForTheLockAndWhoHoldsIt) {
  Story story;

  story.untilLock();
  EXPECT_TRUE(story.last().waitsForLock);
  EXPECT_FALSE(story.last().holdsLock);

  story.say(kWorker, MESSAGE_LOCK_TAKEN, {"tunerfw"});
  EXPECT_FALSE(story.last().waitsForLock);
  EXPECT_TRUE(story.last().holdsLock);
}

TEST(UpdateTracker, EndsAnUpdateThatAnotherOneMadeSuperfluous) {
  Story story;
  story.untilLock().say(kWorker, MESSAGE_LOCK_TAKEN, {"tunerfw"});

  story.say(kClient + kWorker, MESSAGE_NOT_NEEDED_ANY_MORE, {"tunerfw"});
  EXPECT_EQ(story.last().result, Result::Running) << "that was said elsewhere";
  story.say(kWorker, MESSAGE_NOT_NEEDED_ANY_MORE, {"tunerfw"});

  EXPECT_EQ(story.last().result, Result::NotNeeded);
  EXPECT_EQ(story.last().reason, MESSAGE_NOT_NEEDED_ANY_MORE);
}

TEST(UpdateTracker, LeavesAnUpdateThatHasEndedAsItIs) {
  Story story;
  story.untilLock().say(kWorker, MESSAGE_LOCK_TAKEN, {"tunerfw"}).timesOut();
  story.say(kClient, MESSAGE_REQUEST_ENDS, {"4", "-1", "libtuner"});
  const std::int64_t end = story.last().span.end;

  story.say(kWorker, MESSAGE_NOT_NEEDED_ANY_MORE, {"tunerfw"});

  EXPECT_EQ(story.last().result, Result::TimedOut);
  EXPECT_EQ(story.last().span.end, end);
}

TEST(UpdateTracker, KnowsAnUpdateFromItsLockOrItsWriteAlone) {
  Story lock, write;

  lock.say(kWorker, MESSAGE_LOCK_TAKEN, {"tunerfw"});
  write.say(kWorker, MESSAGE_WRITE_BEGINS, {"panelfw"}, "updateFirmware");

  EXPECT_EQ(lock.last().firmware, "tunerfw");
  EXPECT_FALSE(lock.last().holdsLock) << "nobody saw it wait";
  EXPECT_EQ(write.last().firmware, "panelfw");
}

TEST(UpdateTracker, TakesTheLockForGivenBackAfterATimeOut) {
  Story story;
  story.untilWrite().timesOut();

  EXPECT_TRUE(story.last().timedOut);
  EXPECT_FALSE(story.last().holdsLock);
  EXPECT_EQ(story.last().result, Result::TimedOut);
}

constexpr std::int64_t kSecond = 1000000000;

TEST(UpdateTracker, CountsTheTimeUntilTheTimeOutOfAModuleThatNeverCameBack) {
  Story story;
  story.untilWrite();  // in the module from the 4th second on
  story.say(kClient, "").say(kClient, "").timesOut();

  EXPECT_EQ(story.last().timeIn(Stage::InModule), 3 * kSecond);
  EXPECT_EQ(story.last().timeIn(Stage::Prepare), kSecond);
}

TEST(UpdateTracker, CountsNothingBesideTheUpdateForAModuleThatNeverCameBack) {
  Story story;
  story.untilWrite().timesOut().say(kClient, MESSAGE_REQUEST_ENDS, {"4", "1", "libtuner"});
  story.say(kClient, "").say(kClient, "");

  story.finish();

  EXPECT_EQ(story.last().timeIn(Stage::InModule), 2 * kSecond);
  EXPECT_LE(story.last().timeIn(Stage::InModule), story.last().span.length());
  EXPECT_EQ(story.last().find(Stage::InModule)->span.length(), 4 * kSecond) << "which it may still be in";
}

TEST(UpdateTracker, EndsTheWaitForTheLockWithTheRequest) {
  Story story;
  story.untilLock().say(kClient, MESSAGE_REQUEST_ENDS, {"4", "-1", "libtuner"});
  story.say(kClient, "").say(kClient, "");

  story.finish();

  EXPECT_EQ(story.last().find(Stage::WaitForLock)->span.length(), kSecond);
}

TEST(UpdateTracker, TakesAnErrorOfTheWorkerForTheEndOfItsWork) {
  Story story;
  story.untilLock().say(kWorker, MESSAGE_LOCK_TAKEN, {"tunerfw"});
  story.say(kWorker, MESSAGE_CHECKSUM_DIFFERS, {"tunerfw"}).say(kWorker, "").say(kWorker, "");

  EXPECT_EQ(story.last().result, Result::Refused);
  EXPECT_EQ(story.last().reason, MESSAGE_CHECKSUM_DIFFERS);
  EXPECT_FALSE(story.last().find(Stage::Prepare)->isOpen);
  EXPECT_EQ(story.last().find(Stage::Prepare)->span.length(), kSecond);
}

TEST(UpdateTracker, TakesAnErrorOfWhoWaitsForNoEndOfTheWorkersWork) {
  Story story;
  story.untilLock().say(kWorker, MESSAGE_LOCK_TAKEN, {"tunerfw"});

  story.say(kClient, MESSAGE_CHECKSUM_DIFFERS, {"tunerfw"});

  EXPECT_EQ(story.last().result, Result::Running);
  EXPECT_EQ(story.last().reason, MESSAGE_CHECKSUM_DIFFERS);
  EXPECT_TRUE(story.last().find(Stage::Prepare)->isOpen);
}

TEST(UpdateTracker, TakesTheLockForGivenBackWhenTheRequestEnds) {
  Story story;
  story.untilWrite().say(kWorker, MESSAGE_WRITE_SUCCEEDED, {"tunerfw"});
  EXPECT_TRUE(story.last().holdsLock) << "until the one who waits gives it back";

  story.say(kClient, MESSAGE_REQUEST_ENDS, {"4", "0", "libtuner"});

  EXPECT_FALSE(story.last().holdsLock);
  EXPECT_EQ(story.last().result, Result::Updated);
}

TEST(UpdateTracker, KnowsOfNoLockForAUsbPackage) {
  Story story;
  story.say(kClient, MESSAGE_WRITE_BEGINS, {"tunerfw"}, "updateUSB");

  EXPECT_FALSE(story.last().holdsLock);
  EXPECT_FALSE(story.last().limit);
}

TEST(UpdateTracker, TellsUsbPackagesApartThatAreAppliedOneAfterTheOther) {
  Story story;
  story.say(kClient, MESSAGE_WRITE_BEGINS, {"tunerfw"}, "updateUSB");
  story.say(kClient, MESSAGE_WRITE_SUCCEEDED, {"tunerfw"});
  EXPECT_TRUE(story.last().ended);

  story.say(kClient, MESSAGE_WRITE_BEGINS, {"panelfw"}, "updateUSB");
  story.say(kClient, MESSAGE_WRITE_FAILED, {"panelfw", "5", "0", ""});

  const auto& updates = story.tracker().updates();
  ASSERT_THAT(updates, SizeIs(2));
  EXPECT_EQ(updates[0].result, Result::Updated);
  EXPECT_EQ(updates[1].result, Result::ModuleFailed);
  EXPECT_EQ(updates[1].firmware, "panelfw");
}

TEST(UpdateTracker, GivesTheTimeLimitOfTheUpdate) {
  Story story;
  story.untilLock();

  ASSERT_TRUE(story.last().limit);
  EXPECT_EQ(story.last().limit->expected, 10U);
  EXPECT_EQ(story.last().limit->givesUp, 12U);
}

TEST(UpdateTracker, GivesNoTimeLimitThatIsNoNumber) {
  Story story;
  story.say(kClient, MESSAGE_LOCK_WANTED, {"tunerfw", "soon"});

  EXPECT_FALSE(story.last().limit);
}

TEST(UpdateTracker, EndsATurnOfARunWithTheNextAndTheLastWithTheRun) {
  Story story;
  story.say(kClient, MESSAGE_RUN_BEGINS);
  story.say(kClient, MESSAGE_LOCK_WANTED, {"tunerfw", "10"});
  story.say(kWorker, MESSAGE_LOCK_TAKEN, {"tunerfw"}).say(kWorker, MESSAGE_WRITE_SUCCEEDED, {"tunerfw"});
  story.say(kClient, MESSAGE_LOCK_WANTED, {"wififw", "10"});
  story.say(kClient, MESSAGE_POWER_RELEASE);

  const auto& updates = story.tracker().updates();
  ASSERT_THAT(updates, SizeIs(2));
  EXPECT_TRUE(updates[0].ofRun && updates[1].ofRun);
  EXPECT_EQ(updates[0].ended, 5 * std::int64_t{1000000000});
  EXPECT_EQ(updates[0].result, Result::Updated);
  EXPECT_EQ(updates[1].ended, 6 * std::int64_t{1000000000});
  EXPECT_FALSE(updates[1].waitsForLock);
}

TEST(UpdateTracker, GivesEachUpdateItsMessagesAlsoThoseThatComeLate) {
  Story story;
  story.untilWrite().timesOut();
  story.say(kClient, MESSAGE_LOCK_WANTED, {"wififw", "10"});
  story.say(kWorker, MESSAGE_WRITE_SUCCEEDED, {"tunerfw"});

  const auto& updates = story.tracker().updates();
  ASSERT_THAT(updates, SizeIs(2));
  EXPECT_THAT(updates[0].messages, ElementsAre(1, 2, 3, 4, 6));
  EXPECT_THAT(updates[1].messages, ElementsAre(5));
}

TEST(UpdateTracker, CountsNoOldCheckAsPartOfATurn) {
  Story story;
  story.say(kClient, MESSAGE_CHECK_BEGINS, {"libtuner", "tunerfw"}).say(kClient, MESSAGE_RUN_BEGINS);
  story.say(kClient, MESSAGE_LOCK_WANTED, {"tunerfw", "10"});

  EXPECT_EQ(story.last().find(Stage::Check), nullptr);
  EXPECT_EQ(story.last().module, "libtuner") << "which the check has told all the same";
}

TEST(UpdateTracker, NamesTheModuleWhoseTurnItIs) {
  Story story;
  story.untilLock().say(kClient, MESSAGE_CHECK_BEGINS, {"libwifi", "wififw"});
  EXPECT_EQ(story.tracker().module(), "libwifi");

  story.say(kClient, MESSAGE_SIGNATURE_VALID, {"UserCaller", "/usb/tunerfw.bin"});
  EXPECT_EQ(story.tracker().module(), "libtuner");

  story.say(kClient, MESSAGE_SIGNATURE_VALID, {"UserCaller", "/usb/unknownfw.bin"});
  EXPECT_EQ(story.tracker().module(), "libtuner") << "what names none that is known changes nothing";

  for (const char* const path : {"/usb/wififw", "wififw.bin", "/media.bin/wififw"}) {
    story.say(kClient, MESSAGE_SIGNATURE_VALID, {"UserCaller", path});
    EXPECT_EQ(story.tracker().module(), "libtuner") << path << " is no package's path";
  }
}

TEST(UpdateTracker, TellsWhatAProcessIsAt) {
  EXPECT_EQ(fwmessages::activityAfter(Event::LockWanted), Activity::Wait);
  EXPECT_EQ(fwmessages::activityAfter(Event::LockTaken), Activity::Write);
  EXPECT_EQ(fwmessages::activityAfter(Event::TimedOut), Activity::Finish);
  EXPECT_FALSE(fwmessages::activityAfter(Event::Error));
}

}  // namespace
