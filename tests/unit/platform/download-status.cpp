// SPDX-License-Identifier: Apache-2.0
#include "download-status.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "app-binary-manager.h"
#include "device-environment.h"

namespace {

namespace fs = std::filesystem;
using namespace fwplatform;
using ::testing::HasSubstr;
using ::testing::Not;

const std::string kFile = "/run/fw-download/wifiempfw.json";

class DownloadStatusFile : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    ASSERT_EQ(openDownloadStatusDirectory(directory_), 0);
  }
  void write(const DownloadStatus& status) const {
    ASSERT_EQ(writeDownloadStatus(directory_.get(), "wifiempfw", status), 0);
  }

  base::FileDescriptor directory_;
};

TEST(DownloadPercent, IsOfWhatIsKnown) {
  DownloadStatus status;
  const auto percent = [&](std::int64_t received, std::int64_t total) {
    status.received = received;
    status.total = total;
    return status.percent();
  };

  EXPECT_EQ(percent(0, 200), 0U);
  EXPECT_EQ(percent(199, 200), 99U);
  EXPECT_EQ(percent(200, 200), 100U);
  EXPECT_EQ(percent(500, 200), 100U);
  EXPECT_EQ(percent(-1, 200), 0U);
  EXPECT_FALSE(percent(5, 0));
  EXPECT_FALSE(percent(5, kUnknownSize));
}

TEST_F(DownloadStatusFile, IsReadAsItWasWritten) {
  for (const auto state : {DownloadState::Running, DownloadState::Done, DownloadState::Failed}) {
    write({state, 5, 10, "a-reason", "A sentence.", "A remedy."});

    const auto status = readDownloadStatus("wifiempfw");

    ASSERT_TRUE(status);
    EXPECT_EQ(status->state, state);
    EXPECT_EQ(status->received, 5);
    EXPECT_EQ(status->total, 10);
    const bool failed = state == DownloadState::Failed;
    EXPECT_EQ(status->reason, failed ? "a-reason" : "");
    EXPECT_EQ(status->message, failed ? "A sentence." : "");
    EXPECT_EQ(status->remedy, failed ? "A remedy." : "");
  }
}

TEST_F(DownloadStatusFile, HasNoTotalBeforeThatIsKnown) {
  write({});

  EXPECT_THAT(readFile(kFile), Not(HasSubstr("total")));
  EXPECT_THAT(readFile(kFile), Not(HasSubstr("percent")));
  EXPECT_EQ(readDownloadStatus("wifiempfw")->total, kUnknownSize);
}

TEST_F(DownloadStatusFile, CannotBeReadWhenItIsNone) {
  for (const char* text : {"", "{", "[]", "{\"state\": \"sleeping\"}", "{\"state\": 5}", "{}",
                           "{\"state\": \"done\", \"received\": \"many\"}"}) {
    writeFile(kFile, text);

    EXPECT_FALSE(readDownloadStatus("wifiempfw")) << text;
  }
  EXPECT_FALSE(readDownloadStatus("another"));
}

TEST_F(DownloadStatusFile, IsNotReadThroughALinkInThePlaceOfItsDirectory) {
  write({});
  fs::rename("/run/fw-download", "/run/elsewhere");
  fs::create_directory_symlink("/run/elsewhere", "/run/fw-download");

  EXPECT_FALSE(readDownloadStatus("wifiempfw"));
  base::FileDescriptor directory;
  EXPECT_NE(openDownloadStatusDirectory(directory), 0);
}

TEST_F(DownloadStatusFile, IsLockedByOneDownload) {
  base::FileDescriptor first, second, other;

  EXPECT_EQ(lockDownload(directory_.get(), "wifiempfw", first), 0);

  EXPECT_EQ(lockDownload(directory_.get(), "wifiempfw", second), EAGAIN);
  EXPECT_EQ(lockDownload(directory_.get(), "tunerempfw", other), 0);
  EXPECT_TRUE(isDownloadRunning("wifiempfw"));
  first.reset();
  EXPECT_FALSE(isDownloadRunning("wifiempfw"));
  EXPECT_EQ(lockDownload(directory_.get(), "wifiempfw", second), 0);
}

using Told = appbinaryManager::DownloadState;
using appbinaryManager::ABM_GetDownloadProgress;

TEST_F(DownloadStatusFile, IsWhatThePlatformTellsOfADownload) {
  write({DownloadState::Failed, 5, 10, "a-reason", "A sentence.", "A remedy."});

  const appbinaryManager::DownloadProgress failed = ABM_GetDownloadProgress("wifiempfw");

  EXPECT_EQ(failed.state, Told::Failed);
  EXPECT_EQ(failed.received, 5);
  EXPECT_EQ(failed.total, 10);
  EXPECT_EQ(failed.reason, "a-reason");
  EXPECT_EQ(failed.message, "A sentence.");
  EXPECT_EQ(failed.remedy, "A remedy.");
  write({DownloadState::Done, 10, 10, "", "", ""});
  EXPECT_EQ(ABM_GetDownloadProgress("wifiempfw").state, Told::Done);
}

TEST_F(DownloadStatusFile, TellsADownloadThatRunsFromOneThatWasKilled) {
  write({DownloadState::Running, 5, kUnknownSize, "", "", ""});
  base::FileDescriptor lock;
  ASSERT_EQ(lockDownload(directory_.get(), "wifiempfw", lock), 0);

  EXPECT_EQ(ABM_GetDownloadProgress("wifiempfw").state, Told::Running);
  EXPECT_EQ(ABM_GetDownloadProgress("wifiempfw").total, -1);

  lock.reset();
  EXPECT_EQ(ABM_GetDownloadProgress("wifiempfw").state, Told::BrokenOff);
}

TEST_F(DownloadStatusFile, TellsNothingOfWhatNobodyAskedFor) {
  writeFile("/run/outside.json", "{\"state\": \"done\"}");

  for (const char* name : {"wifiempfw", "", "../outside"}) {
    EXPECT_EQ(ABM_GetDownloadProgress(name).state, Told::NotKnown) << name;
  }
  fs::remove_all("/run/fw-download");
  EXPECT_EQ(ABM_GetDownloadProgress("wifiempfw").state, Told::NotKnown);
}

TEST_F(DownloadStatusFile, IsNotLockedWhereNobodyEverDownloaded) {
  EXPECT_FALSE(isDownloadRunning("wifiempfw"));
  fs::remove_all("/run/fw-download");
  EXPECT_FALSE(isDownloadRunning("wifiempfw"));
}

// The process that answers ends; what goes on is its child.
TEST_F(DownloadStatusFile, StaysLockedInAChildWhenItsParentHasGone) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const pid_t parent = fork();
  if (parent == 0) {
    base::FileDescriptor lock;
    const bool locked = lockDownload(directory_.get(), "wifiempfw", lock) == 0;
    if (fork() == 0) {
      char byte;
      close(ends[1]);
      _exit(read(ends[0], &byte, 1) == 0 ? 0 : 1);  // until the test lets it go
    }
    _exit(locked ? 0 : 1);
  }
  close(ends[0]);
  int status = -1;
  waitpid(parent, &status, 0);

  EXPECT_EQ(status, 0);
  EXPECT_TRUE(isDownloadRunning("wifiempfw"));
  close(ends[1]);
}

TEST_F(DownloadStatusFile, IsNotLockedThroughALink) {
  writeFile("/tmp/precious", "precious");
  fs::create_symlink("/tmp/precious", "/run/fw-download/wifiempfw.lock");
  base::FileDescriptor lock;

  EXPECT_EQ(lockDownload(directory_.get(), "wifiempfw", lock), ELOOP);
  EXPECT_FALSE(isDownloadRunning("wifiempfw"));
}

}  // namespace
