// SPDX-License-Identifier: Apache-2.0
// The platform log's way to the system's log daemon, with a real socket at
// /dev/log of the test's own.
#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "device-environment.h"
#include "dlog.h"
#include "log-daemon.h"
#include "logging-child.h"

namespace {

// Whether this process has more rights than who started it, for the C library.
bool hasMoreRights = false;

}  // namespace

extern "C" __attribute__((visibility("default"))) char* secure_getenv(const char* name) noexcept {
  return hasMoreRights ? nullptr : std::getenv(name);
}

namespace {

using ::testing::ElementsAre;

class PlatformLogToSyslog : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    daemon_.emplace();
  }

  // What the daemon gets from a process that logs.
  std::vector<std::string> messagesOf(const char* setting, const std::function<int()>& body) const {
    const LoggingChild child(setting, dup(STDERR_FILENO), body);
    EXPECT_EQ(child.wait(), 0);
    return daemon_->messages();
  }

 private:
  std::optional<LogDaemon> daemon_;
};

int logAt(int priority, const char* text) {
  return __dlog_print(2, priority, "FWUPDATE", "%s", text);
}

TEST_F(PlatformLogToSyslog, GivesEachPriorityItsSyslogPriority) {
  const std::vector<std::string> messages = messagesOf(nullptr, [] {
    for (const int priority : {0, 3, 4, 5, 6, 7, 9}) {
      logAt(priority, "text");
    }
    return 0;
  });

  EXPECT_THAT(messages,
              ElementsAre("<15>FWUPDATE text", "<15>FWUPDATE text", "<14>FWUPDATE text", "<12>FWUPDATE text",
                          "<11>FWUPDATE text", "<10>FWUPDATE text", "<10>FWUPDATE text"));
}

TEST_F(PlatformLogToSyslog, IsTheSinkByNameForUnknownNamesAndWithoutAJournal) {
  for (const char* setting : {"syslog", "nonsense", "journal"}) {
    EXPECT_THAT(messagesOf(setting, [] { return logAt(6, "here") == 4 ? 0 : 1; }),
                ElementsAre("<11>FWUPDATE here"));
  }
}

TEST_F(PlatformLogToSyslog, GetsNothingFromTheOtherSinks) {
  for (const char* setting : {"stderr", "none"}) {
    EXPECT_THAT(messagesOf(setting,
                           [] {
                             logAt(6, "(this line belongs on stderr)");
                             return 0;
                           }),
                ElementsAre());
  }
}

TEST_F(PlatformLogToSyslog, IsTheSinkWhereTheJournalIsNoSocket) {
  writeFile("/run/systemd/journal/socket", "");

  EXPECT_THAT(messagesOf(nullptr, [] { return logAt(6, "here") == 4 ? 0 : 1; }),
              ElementsAre("<11>FWUPDATE here"));
}

TEST_F(PlatformLogToSyslog, GetsWhatAProgramWithMoreRightsSaysWhateverTheEnvironment) {
  EXPECT_THAT(messagesOf("none",
                         [] {
                           hasMoreRights = true;
                           setenv("FW_UPDATE_LOG_LEVEL", "error", 1);
                           logAt(4, "here");
                           return 0;
                         }),
              ElementsAre("<14>FWUPDATE here"));
}

TEST_F(PlatformLogToSyslog, KeepsLineFeedsAtTheEndAndShowsOtherControlCharacters) {
  EXPECT_THAT(messagesOf("syslog",
                         [] {
                           logAt(6, "lstat error\n");
                           logAt(6, "a\nb\x1B[m %s\xFF");
                           return 0;
                         }),
              ElementsAre("<11>FWUPDATE lstat error\n", "<11>FWUPDATE a\\x0Ab\\x1B[m %s\\xFF"));
}

TEST_F(PlatformLogToSyslog, TakesLongMessages) {
  const std::string text(64 * 1024, 'z');

  const std::vector<std::string> messages = messagesOf("syslog", [&] {
    logAt(6, text.c_str());
    return 0;
  });

  ASSERT_EQ(messages.size(), 1u);
  EXPECT_TRUE(messages[0] == "<11>FWUPDATE " + text) << messages[0].size();
}

}  // namespace
