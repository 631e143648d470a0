// SPDX-License-Identifier: Apache-2.0
// Updates that are killed, and updates whose system calls or medium fail: the old
// firmware stays active and whole, and the next update works.
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <optional>

#include "image-information.h"
#include "module-test.h"
#include "refused-calls.h"
#include "thoroughness.h"

namespace {

// 32-bit processes reach these under other names.
#ifdef SYS__llseek
constexpr long kSeek = SYS__llseek;
constexpr long kLock = SYS_fcntl64;
#else
constexpr long kSeek = SYS_lseek;
constexpr long kLock = SYS_fcntl;
#endif

constexpr std::size_t kMebibyte = 1024 * 1024;

// A process that stops on its way into and out of every system call.
class TracedChild {
 public:
  struct Stop {
    bool entry;
    std::uint64_t call;  // at an entry
  };

  explicit TracedChild(const std::function<int()>& body)
      : child_([&] {
          ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
          ::raise(SIGSTOP);
          return body();
        }) {
    int status = 0;
    if (::waitpid(child_.id(), &status, 0) != child_.id() || !WIFSTOPPED(status)) {
      throw std::runtime_error("the process did not wait to be traced");
    }
    if (::ptrace(PTRACE_SETOPTIONS, child_.id(), nullptr, PTRACE_O_TRACESYSGOOD) != 0) {
      throw std::runtime_error("the process cannot be traced");
    }
  }

  // Nothing when the process has ended.
  std::optional<Stop> next() {
    int status = 0;
    ::ptrace(PTRACE_SYSCALL, child_.id(), nullptr, nullptr);
    if (::waitpid(child_.id(), &status, 0) != child_.id()) {
      throw std::runtime_error("the traced process is lost");
    }
    if (!WIFSTOPPED(status)) {
      child_.forget();
      result_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
      return std::nullopt;
    }
    __ptrace_syscall_info info{};
    ::ptrace(PTRACE_GET_SYSCALL_INFO, child_.id(), sizeof info, &info);
    const bool entry = info.op == PTRACE_SYSCALL_INFO_ENTRY;
    return Stop{entry, entry ? info.entry.nr : 0};
  }

  // False when the process has ended before.
  bool runInto(std::uint64_t call) {
    while (const std::optional<Stop> stop = next()) {
      if (stop->entry && stop->call == call) {
        return true;
      }
    }
    return false;
  }

  int result() {
    while (next()) {
    }
    return result_;
  }

 private:
  Child child_;
  int result_ = 0;
};

void refuse(long call, int error) {
  if (!refuseCalls({static_cast<int>(call)}, error)) {
    ::_exit(255);
  }
}

class InterruptedUpdate : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    ASSERT_EQ(updateFrom(panel_, "1.0.0", oldImage_), 0);
    forgetProgress("panelfw");
    writeFile(kImagePath, newImage_);
  }

  int update() const { return panel_.update("2.0.0", kImagePath, newCrc_); }

  void expectOldFirmware() const {
    EXPECT_EQ(panel_.activeVersion(), "1.0.0");
    EXPECT_TRUE(flashContent("panelfw") == oldImage_);
    EXPECT_EQ(panel_.progress(), 0u);
  }

  const LoadedModule panel_{modulePath("libpanel.so")};
  const std::string oldImage_ = makeImage(100000, 1);
  const std::string newImage_ = makeImage(150000, 2);
  const std::uint32_t newCrc_ = crcOf(newImage_);
  const std::string flash_ = std::string(kComponents) + "panelfw.flash";
  const std::string newFlash_ = std::string(kComponents) + "panelfw.flash.new";
};

TEST_F(InterruptedUpdate, LeavesTheOldFirmwareAtEveryStage) {
  for (const unsigned int percent : {1u, 21u, 42u, 50u, 70u, 99u, 100u}) {
    describeComponent("panelfw", "stall_at_percent = " + std::to_string(percent));
    Child updating([&] { return update(); });
    waitForProgress(panel_, std::min(percent, 99u));

    updating.kill();

    SCOPED_TRACE(percent);
    expectOldFirmware();
  }
  describeComponent("panelfw", "");
  EXPECT_EQ(update(), 0);
  EXPECT_EQ(panel_.activeVersion(), "2.0.0");
  EXPECT_TRUE(flashContent("panelfw") == newImage_);
}

TEST_F(InterruptedUpdate, LeavesWholeFirmwareAtEverySystemCall) {
  const std::string oldFlash = readFile(flash_);
  int oldActive = 0;
  int newActive = 0;

  for (bool ended = false; !ended;) {
    writeFile(flash_, oldFlash);
    forgetProgress("panelfw");
    const int stops = (oldActive + newActive) * thoroughness::kEveryNth;
    {
      TracedChild updating([&] { return update(); });
      for (int stop = 0; stop < stops && !ended; ++stop) {
        ended = !updating.next();
      }
    }

    const bool isNew = panel_.activeVersion() == "2.0.0";
    (isNew ? newActive : oldActive) += 1;
    ASSERT_TRUE(isNew || newActive == 0) << "back to the old firmware after stop " << stops;
    ASSERT_TRUE(flashContent("panelfw") == (isNew ? newImage_ : oldImage_)) << "stop " << stops;
    ASSERT_TRUE(isNew || panel_.progress() == 0) << "stop " << stops;
    ASSERT_EQ(update(), 0) << "stop " << stops;
    ASSERT_TRUE(flashContent("panelfw") == newImage_) << "stop " << stops;
  }
  EXPECT_GT(oldActive, 30 / thoroughness::kEveryNth);
  EXPECT_GT(newActive, 2 / thoroughness::kEveryNth);
}

TEST_F(InterruptedUpdate, SyncsTheFirmwareBeforeTheSwitchAndTheDirectoryAfterIt) {
  TracedChild updating([&] { return update(); });

  EXPECT_TRUE(updating.runInto(SYS_fsync));
  EXPECT_EQ(readFile(newFlash_).size(), 256 + newImage_.size());
  EXPECT_TRUE(updating.runInto(SYS_rename));
  EXPECT_TRUE(updating.runInto(SYS_fsync));
  EXPECT_FALSE(exists(newFlash_));
  EXPECT_NE(panel_.progress(), 100u);
  EXPECT_EQ(updating.result(), 0);
}

TEST_F(InterruptedUpdate, LetsTheMediumBeginEvery8MiBWhileItWritesOn) {
  const std::string image(17 * kMebibyte, 'x');
  const unsigned int crc = image::crcOf(image);
  writeFile(kImagePath, image);
  TracedChild updating([&] { return panel_.update("2.0.0", kImagePath, crc); });

  ASSERT_TRUE(updating.runInto(SYS_sync_file_range));
  EXPECT_EQ(std::filesystem::file_size(newFlash_), 256 + 8 * kMebibyte);
  ASSERT_TRUE(updating.runInto(SYS_sync_file_range));
  EXPECT_EQ(std::filesystem::file_size(newFlash_), 256 + 16 * kMebibyte);
  EXPECT_EQ(panel_.activeVersion(), "1.0.0");
  EXPECT_EQ(updating.result(), 0);
  EXPECT_TRUE(readFile(flash_).compare(256, std::string::npos, image) == 0);
}

TEST_F(InterruptedUpdate, DoesWithoutAnEarlyBeginOfTheMedium) {
  const std::string image(9 * kMebibyte, 'x');
  const unsigned int crc = image::crcOf(image);
  writeFile(kImagePath, image);
  Child updating([&] {
    refuse(SYS_sync_file_range, ENOSYS);
    return panel_.update("2.0.0", kImagePath, crc);
  });

  EXPECT_EQ(updating.wait(), 0);
  EXPECT_TRUE(readFile(flash_).compare(256, std::string::npos, image) == 0);
}

TEST_F(InterruptedUpdate, ReportsGrowingProgressThatReaches100WithTheSwitch) {
  TracedChild updating([&] { return update(); });
  std::vector<unsigned int> seen{0};

  while (updating.next()) {
    const unsigned int percent = panel_.progress();
    if (percent != seen.back()) {
      seen.push_back(percent);
    }
    ASSERT_TRUE(percent < 100 || panel_.activeVersion() == "2.0.0");
  }

  // Three blocks of 65536 bytes, the last one shorter: written, then verified.
  EXPECT_EQ(seen, (std::vector<unsigned int>{0, 21, 43, 50, 71, 93, 99, 100}));
}

TEST_F(InterruptedUpdate, NoticesAMediumThatDoesNotKeepWhatWasWritten) {
  for (const std::streamoff offset : {0, 30, 200, 256, 100000, 150255}) {
    TracedChild updating([&] { return -update(); });
    ASSERT_TRUE(updating.runInto(SYS_fsync));
    std::fstream medium(newFlash_, std::ios::binary | std::ios::in | std::ios::out);
    medium.seekg(offset);
    const int byte = medium.get();
    medium.seekp(offset);
    medium.put(static_cast<char>(byte ^ 1));
    medium.close();

    EXPECT_EQ(updating.result(), EIO) << offset;
    expectOldFirmware();
    EXPECT_FALSE(exists(newFlash_)) << offset;
  }
}

TEST_F(InterruptedUpdate, NoticesAnImageThatShrinksWhileItIsRead) {
  TracedChild updating([&] { return -update(); });
  ASSERT_TRUE(updating.runInto(SYS_pwrite64));  // progress 0
  ASSERT_TRUE(updating.runInto(SYS_pwrite64));  // after the first block
  std::filesystem::resize_file(kImagePath, 10);

  EXPECT_EQ(updating.result(), EIO);
  expectOldFirmware();
}

TEST_F(InterruptedUpdate, NoticesAMediumThatLosesTheEnd) {
  TracedChild updating([&] { return -update(); });
  ASSERT_TRUE(updating.runInto(SYS_fsync));
  std::filesystem::resize_file(newFlash_, 256 + newImage_.size() - 1);

  EXPECT_EQ(updating.result(), EIO);
  expectOldFirmware();
}

TEST_F(InterruptedUpdate, ReportsASystemCallThatFails) {
  constexpr long kCalls[] = {SYS_fsync, SYS_rename, SYS_pwrite64, SYS_read, kSeek, kLock};

  for (const long call : kCalls) {
    Child updating([&] {
      refuse(call, EDQUOT);
      return -update();
    });

    EXPECT_EQ(updating.wait(), EDQUOT) << "call " << call;
    expectOldFirmware();
    EXPECT_FALSE(exists(newFlash_)) << "call " << call;
  }
}

}  // namespace
