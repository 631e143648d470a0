// SPDX-License-Identifier: Apache-2.0
#include "history.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <memory>

#include "child-process.h"
#include "device-environment.h"
#include "file-descriptor.h"

namespace {

// So often opening the history fails, as on a disk that is full for a moment.
int failsToOpen = 0;

bool mayOpen(const std::string& path) {
  if (failsToOpen == 0 || path != "/var/lib/fw-update/history.db") {
    return true;
  }
  --failsToOpen;
  errno = ENOSPC;
  return false;
}

}  // namespace

// In place of the C library's.
extern "C" int open(const char* path, int flags, ...) {
  std::va_list arguments;
  va_start(arguments, flags);
  const auto mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return mayOpen(path) ? static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags | O_LARGEFILE, mode))
                       : -1;
}

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;
namespace fs = std::filesystem;

constexpr char kFile[] = "/var/lib/fw-update/history.db";

history::Entry tuner(const std::string& module = "libtuner") {
  history::Entry entry;
  entry.way = "direct";
  entry.module = module;
  entry.versionBefore = "1.0.0";
  return entry;
}

history::Entry ended(const std::string& outcome, const std::string& module = "libtuner") {
  history::Entry entry = tuner(module);
  entry.outcome = outcome;
  entry.sentence = module + " ended as " + outcome + ".";
  return entry;
}

history::History historyOf(int mostEntries = 1000, int mostKib = 4096) {
  history::Settings settings;
  settings.mostEntries = mostEntries;
  settings.mostKib = mostKib;
  return history::History(settings);
}

void add(history::History& all, const history::Entry& entry) {
  const history::Attempt attempt = all.begin(entry);
  all.finish(attempt, entry);
}

std::vector<std::string> outcomes(history::History& all) {
  std::vector<std::string> list;
  for (const history::Entry& entry : all.list({})) {
    list.push_back(entry.outcome);
  }
  return list;
}

class AHistory : public DeviceTest {
 protected:
  static std::string texts() {
    std::string all;
    for (const history::Field& field : history::kFields) {
      all += field.name;
    }
    return all;
  }
};

TEST_F(AHistory, KeepsEverythingOfAnAttempt) {
  history::History all = historyOf();
  history::Entry entry;
  for (const history::Field& field : history::kFields) {
    entry.*field.text = std::string("the ") + field.name + "\nü\"'";
  }

  const history::Attempt attempt = all.begin(tuner());
  entry.run = 7;
  all.finish(attempt, entry);
  const auto found = all.find(1);

  ASSERT_TRUE(found);
  for (const history::Field& field : history::kFields) {
    EXPECT_EQ(*found.*field.text, entry.*field.text) << field.name;
  }
  EXPECT_EQ(found->run, 7);
  EXPECT_EQ(found->began, attempt.began);
  EXPECT_GE(found->ended.value_or(0), found->began);
  EXPECT_GT(found->began, 1700000000000);
}

TEST_F(AHistory, CountsAnAttemptOnceThatIsWrittenAgain) {
  history::History all = historyOf();
  const history::Attempt attempt = all.begin(tuner());
  all.finish(attempt, ended("updated"));
  history::Entry more = ended("updated");
  more.versionAfter = "2.0.0";

  all.finish(attempt, more);

  ASSERT_THAT(all.list({}), SizeIs(1));
  EXPECT_EQ(all.list({})[0].versionAfter, "2.0.0");
  ASSERT_THAT(all.totals(), SizeIs(1));
  EXPECT_EQ(all.totals()[0].count, 1);
  EXPECT_EQ(all.totals()[0].version, "2.0.0");
}

TEST_F(AHistory, IsEmptyBeforeTheFirstAttempt) {
  history::History all = historyOf();

  EXPECT_THAT(all.list({}), IsEmpty());
  EXPECT_FALSE(all.find(1));
  EXPECT_FALSE(exists(kFile));
}

TEST_F(AHistory, ShowsAnAttemptThatRuns) {
  history::History all = historyOf();

  const history::Attempt attempt = all.begin(tuner());

  EXPECT_EQ(attempt.number, 1);
  EXPECT_THAT(outcomes(all), ElementsAre("running"));
  EXPECT_EQ(all.list({})[0].began, attempt.began);
  EXPECT_FALSE(all.list({})[0].ended);
}

// Another process with an attempt that runs, from here on until it is killed.
class AtWork {
 public:
  AtWork()
      : child_([this] {
          history::History all = historyOf();
          const history::Attempt attempt = all.begin(tuner());
          char byte = 0;
          static_cast<void>(write(begun_.writeEnd.get(), &byte, 1));
          pause();
          return 0;
        }) {
    char byte = 0;
    EXPECT_EQ(read(begun_.readEnd.get(), &byte, 1), 1);
  }
  void kill() {
    child_.kill(SIGKILL);
    child_.wait();
  }

 private:
  base::Pipe begun_ = base::makePipe();
  ChildProcess child_;
};

TEST_F(AHistory, CallsAnAttemptInterruptedWhoseProcessIsGone) {
  AtWork process;
  history::History all = historyOf();
  EXPECT_THAT(outcomes(all), ElementsAre("running"));

  process.kill();

  EXPECT_THAT(outcomes(all), ElementsAre("interrupted"));
  EXPECT_THAT(all.list({})[0].sentence, HasSubstr("cut off"));
  ASSERT_THAT(all.totals(), SizeIs(1));
  EXPECT_EQ(all.totals()[0].outcome, "interrupted");
  EXPECT_EQ(all.totals()[0].count, 1);
}

TEST_F(AHistory, CallsNoOtherAttemptInterruptedThanThatOfTheProcessThatIsGone) {
  AtWork first;
  AtWork second;
  AtWork third;

  first.kill();
  third.kill();

  history::History all = historyOf();
  EXPECT_THAT(outcomes(all), ElementsAre("interrupted", "running", "interrupted"));
}

TEST_F(AHistory, GivesTheNewestOldestFirst) {
  history::History all = historyOf();
  add(all, ended("updated"));
  add(all, ended("module-failed"));
  add(all, ended("updated", "libwifi"));
  add(all, ended("nothing-to-do"));

  history::Filter two;
  two.most = 2;
  history::Filter ofTuner;
  ofTuner.module = "libtuner";
  history::Filter failed;
  failed.failedOnly = true;
  history::Filter later;
  later.since = all.find(4)->began + 1;

  EXPECT_THAT(outcomes(all), ElementsAre("updated", "module-failed", "updated", "nothing-to-do"));
  ASSERT_THAT(all.list(two), SizeIs(2));
  EXPECT_EQ(all.list(two)[0].number, 3);
  EXPECT_THAT(all.list(ofTuner), SizeIs(3));
  ASSERT_THAT(all.list(failed), SizeIs(1));
  EXPECT_EQ(all.list(failed)[0].number, 2);
  EXPECT_THAT(all.list(later), IsEmpty());
}

TEST_F(AHistory, KeepsNoMoreEntriesThanItMayAndCountsAll) {
  history::History all = historyOf(10);

  for (int i = 0; i < 25; ++i) {
    add(all, ended("updated"));
  }

  const auto kept = all.list({});
  ASSERT_THAT(kept, SizeIs(10));
  EXPECT_EQ(kept.front().number, 16);
  EXPECT_EQ(kept.back().number, 25);
  EXPECT_EQ(all.totals()[0].count, 25);
}

TEST_F(AHistory, KeepsNoMoreBytesThanItMay) {
  history::History all = historyOf(100000, 256);
  history::Entry large = ended("module-failed");
  large.messages = std::string(6000, 'm');

  for (int i = 0; i < 80; ++i) {
    add(all, large);
  }

  EXPECT_LE(fs::file_size(kFile), 256u * 1024);
  ASSERT_GT(all.list({}).size(), 10u);
  EXPECT_EQ(all.list({}).back().number, 80);
  EXPECT_EQ(all.list({}).back().outcome, "module-failed");
}

TEST_F(AHistory, BecomesSmallerWhenItMayKeepLess) {
  history::History large = historyOf(1000, 4096);
  history::Entry entry = ended("module-failed");
  entry.messages = std::string(6000, 'm');
  for (int i = 0; i < 80; ++i) {
    add(large, entry);
  }
  ASSERT_GT(fs::file_size(kFile), 400u * 1024);

  history::History small = historyOf(1000, 256);
  for (int i = 0; i < 10; ++i) {
    add(small, entry);
  }

  EXPECT_LE(fs::file_size(kFile), 256u * 1024);
  EXPECT_EQ(small.list({}).back().number, 90);
}

// A disk of its own, in memory, with nothing left on it.
class OnAFullDisk : public AHistory {
 protected:
  void SetUp() override {
    AHistory::SetUp();
    ASSERT_EQ(mount("tmpfs", kDisk, "tmpfs", 0, "size=1m"), 0);
  }
  void TearDown() override { umount2(kDisk, MNT_DETACH); }

  static void fill() {
    const base::FileDescriptor file(open("/var/lib/fw-update/filler", O_WRONLY | O_CREAT | O_APPEND, 0600));
    const std::string block(4096, 'x');
    while (write(file.get(), block.data(), block.size()) > 0) {
    }
    ASSERT_EQ(errno, ENOSPC);
  }

  static constexpr char kDisk[] = "/var/lib/fw-update";
};

TEST_F(OnAFullDisk, TheOldestMakeRoomForTheNewest) {
  history::History all = historyOf();
  history::Entry entry = ended("module-failed");
  entry.messages = std::string(6000, 'm');
  for (int i = 0; i < 20; ++i) {
    add(all, entry);
  }
  fill();

  for (int i = 0; i < 100; ++i) {
    add(all, entry);
  }

  const auto kept = all.list({});
  ASSERT_FALSE(kept.empty());
  EXPECT_EQ(kept.back().number, 120);
  EXPECT_EQ(kept.back().outcome, "module-failed");
  EXPECT_GT(kept.front().number, 1);
  EXPECT_GT(kept.size(), 10u);
}

TEST_F(OnAFullDisk, AnAttemptWithoutAnyRoomIsNoError) {
  fill();
  history::History all = historyOf();

  const history::Attempt attempt = all.begin(tuner());

  EXPECT_EQ(attempt.number, 0);
  EXPECT_THAT(all.list({}), IsEmpty());
}

class ADamagedHistory : public AHistory {
 protected:
  static void overwrite(std::streamoff at, const std::string& bytes) {
    std::fstream file(kFile, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(at);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }
};

TEST_F(ADamagedHistory, IsSetAsideAndBegunAnew) {
  for (const std::streamoff at : {std::streamoff{0}, std::streamoff{100}, std::streamoff{4096}}) {
    AHistory::SetUp();
    history::History before = historyOf();
    add(before, ended("updated"));
    overwrite(at, std::string(2000, '\x5a'));
    const std::string damaged = readFile(kFile);

    history::History all = historyOf();
    add(all, ended("module-failed"));

    EXPECT_THAT(outcomes(all), ElementsAre("module-failed")) << at;
    EXPECT_THAT(all.warning(), HasSubstr("/var/lib/fw-update/history.db.damaged")) << at;
    EXPECT_EQ(readFile(all.damagedFile()), damaged) << at;
  }
}

TEST_F(ADamagedHistory, IsSetAsideByAReaderToo) {
  writeFile(kFile, std::string(5000, 'x'));
  history::History all = historyOf();

  EXPECT_THAT(all.list({}), IsEmpty());
  EXPECT_NE(all.warning(), "");
}

// Made by somebody who means harm.
class AHostileHistory : public AHistory {
 protected:
  void SetUp() override {
    AHistory::SetUp();
    history::History before = historyOf();
    add(before, ended("updated"));
  }
  static void change(const std::string& statements) {
    SQLite::Database(kFile, SQLite::OPEN_READWRITE).exec(statements);
  }
};

TEST_F(AHostileHistory, RunsNoQueryOfItsOwn) {
  change(
      "ALTER TABLE entries RENAME TO others; CREATE VIEW entries AS WITH RECURSIVE n(i) AS (SELECT 1 UNION "
      "ALL "
      "SELECT i + 1 FROM n LIMIT 5) SELECT others.* FROM n, others");
  history::History all = historyOf();

  EXPECT_THAT(outcomes(all), IsEmpty());
  EXPECT_NE(all.damagedFile(), "");
}

TEST_F(AHostileHistory, ChangesNothingByItself) {
  change("CREATE TRIGGER hides AFTER UPDATE ON entries BEGIN DELETE FROM entries; END");
  history::History all = historyOf();

  add(all, ended("module-failed"));

  EXPECT_THAT(outcomes(all), ElementsAre("updated", "module-failed"));
}

TEST_F(AHostileHistory, TakesNoMoreMemoryThanItMayHoldItself) {
  change("UPDATE entries SET sentence = CAST(zeroblob(8000000) AS TEXT)");
  history::History all = historyOf();

  EXPECT_THROW(all.list({}), history::Failure);
}

TEST_F(AHostileHistory, IsNotWaitedFor) {
  fs::remove(kFile);
  ASSERT_EQ(mkfifo(kFile, 0644), 0);
  alarm(30);  // for what waits in spite of it
  history::History all = historyOf();

  EXPECT_THROW(all.list({}), history::Failure);
  EXPECT_EQ(all.begin(tuner()).number, 0);
  alarm(0);
}

TEST_F(ADamagedHistory, OfANewerVersionIsLeftAlone) {
  history::History before = historyOf();
  add(before, ended("updated"));
  overwrite(60, std::string("\0\0\0\x02", 4));
  const std::string newer = readFile(kFile);

  history::History all = historyOf();
  const history::Attempt attempt = all.begin(tuner());

  EXPECT_EQ(attempt.number, 0);
  EXPECT_THROW(all.list({}), history::Failure);
  EXPECT_EQ(readFile(kFile), newer);
}

TEST_F(AHistory, TakesEntriesOfSeveralProcessesAtOnce) {
  constexpr int kProcesses = 4;
  constexpr int kEach = 15;
  std::vector<std::unique_ptr<ChildProcess>> processes;
  for (int i = 0; i < kProcesses; ++i) {
    processes.push_back(std::make_unique<ChildProcess>([] {
      for (int n = 0; n < kEach; ++n) {
        history::History all = historyOf();
        history::Attempt attempt;
        while (attempt.number == 0) {  // another process was at it for too long
          attempt = all.begin(tuner());
        }
        all.finish(attempt, ended("updated"));
      }
      return 0;
    }));
  }
  for (const auto& process : processes) {
    EXPECT_EQ(process->wait(), 0);
  }

  history::History all = historyOf();

  std::int64_t number = 0;
  for (const history::Entry& entry : all.list({})) {
    EXPECT_EQ(entry.number, ++number);
  }
  EXPECT_GE(number, kProcesses * kEach);
  EXPECT_THAT(outcomes(all), ::testing::Contains("updated").Times(::testing::Ge(kProcesses * kEach - 3)));
}

TEST_F(AHistory, CostsAnOrdinaryUserNoError) {
  history::History root = historyOf();
  add(root, ended("updated"));
  ASSERT_EQ(chmod(kFile, 0), 0);
  ASSERT_EQ(chmod("/var/lib/fw-update", 0555), 0);
  const WithoutFileOverride ordinary;
  history::History all = historyOf();

  const history::Attempt attempt = all.begin(tuner());

  EXPECT_EQ(attempt.number, 0);
  try {
    all.list({});
    ADD_FAILURE() << "it was read";
  } catch (const history::Failure& failure) {
    EXPECT_TRUE(failure.isDenied);
    EXPECT_THAT(failure.what(), HasSubstr("Permission denied"));
  }
}

TEST_F(AHistory, IsReadByWhoMayOnlyRead) {
  history::History root = historyOf();
  add(root, ended("updated"));
  ASSERT_EQ(chmod(kFile, 0444), 0);
  ASSERT_EQ(chmod("/var/lib/fw-update", 0555), 0);
  const WithoutFileOverride ordinary;
  history::History all = historyOf();

  EXPECT_THAT(outcomes(all), ElementsAre("updated"));
}

TEST_F(AHistory, IsNotForEverybodyToRead) {
  history::History all = historyOf();
  add(all, ended("updated"));

  EXPECT_EQ(fs::status(kFile).permissions() & fs::perms::mask, fs::perms(0640));
  EXPECT_EQ(fs::status("/var/lib/fw-update/history.lock").permissions() & fs::perms::mask, fs::perms(0600));
}

TEST_F(AHistory, KeepsTheEndOfAnAttemptAlthoughItCannotBeOpenedJustThen) {
  history::History all = historyOf();
  const history::Attempt attempt = all.begin(tuner());

  failsToOpen = 1;
  all.finish(attempt, ended("updated"));

  EXPECT_EQ(failsToOpen, 0);
  EXPECT_THAT(outcomes(all), ElementsAre("updated"));
}

TEST_F(AHistory, TakesInOnceWhatOthersLeftATraceOf) {
  history::History all = historyOf();
  const history::Traced client{"client-1", {{100, ended("updated")}, {200, ended("refused-image")}}};
  const history::Traced other{"other-2", {{100, ended("timed-out")}}};

  all.takeIn({client});
  all.takeIn({client, other});

  EXPECT_THAT(outcomes(all), UnorderedElementsAre("updated", "refused-image", "timed-out"));
}

TEST_F(AHistory, TakesInWhatAnotherProcessOfAForgottenNameLeft) {
  history::History all = historyOf();
  const history::Traced client{"client-1", {{100, ended("updated")}}};
  const history::Traced other{"other-2", {{100, ended("timed-out")}}};

  all.takeIn({client});
  all.takeIn({other});  // the first one's trace is gone
  all.takeIn({client, other});

  EXPECT_THAT(outcomes(all), UnorderedElementsAre("updated", "timed-out", "updated"));
}

TEST_F(AHistory, IsNotBegunForTracesWithoutUpdates) {
  historyOf().takeIn({{"client-1", {}}});

  EXPECT_FALSE(fs::exists(kFile));
}

TEST_F(AHistory, IsReadAlthoughItCannotBeOpenedJustThen) {
  history::History all = historyOf();
  add(all, ended("updated"));
  ASSERT_EQ(chmod(kFile, 0444), 0);
  ASSERT_EQ(chmod("/var/lib/fw-update", 0555), 0);
  const WithoutFileOverride ordinary;

  failsToOpen = 1;

  EXPECT_THAT(outcomes(all), ElementsAre("updated"));
  EXPECT_EQ(failsToOpen, 0);
}

TEST_F(AHistory, FollowsNoLink) {
  fs::create_directories("/tmp/elsewhere");
  fs::create_symlink("/tmp/elsewhere/file", kFile);
  history::History all = historyOf();

  EXPECT_EQ(all.begin(tuner()).number, 0);
  EXPECT_FALSE(exists("/tmp/elsewhere/file"));
}

}  // namespace
