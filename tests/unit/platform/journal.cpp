// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "device-environment.h"
#include "dlog.h"

namespace {

using ::testing::Contains;
using ::testing::IsEmpty;
using ::testing::Key;
using ::testing::Not;
using ::testing::Pair;
using ::testing::SizeIs;

constexpr char kSocket[] = "/run/systemd/journal/socket";

using Fields = std::map<std::string, std::string>;

// Takes one entry of the journal's own protocol apart.
Fields fieldsOf(const std::string& packet) {
  Fields fields;
  for (std::size_t at = 0; at < packet.size();) {
    const std::size_t end = packet.find('\n', at);
    const std::string line = packet.substr(at, end - at);
    const std::size_t equals = line.find('=');
    if (equals != std::string::npos) {
      fields[line.substr(0, equals)] = line.substr(equals + 1);
      at = end + 1;
      continue;
    }
    // A value with line feeds stands behind its length.
    std::uint64_t sent = 0;
    std::memcpy(&sent, packet.data() + end + 1, sizeof sent);
    const auto length = static_cast<std::size_t>(sent);
    fields[line] = packet.substr(end + 1 + sizeof sent, length);
    at = end + 1 + sizeof sent + length + 1;
  }
  return fields;
}

// A journal that keeps what it is sent.
class JournalTest : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    std::filesystem::create_directories("/run/systemd/journal");
    socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kSocket);
    ASSERT_EQ(bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  void TearDown() override { close(socket_); }

  // What a child of its own sends, since the sink is chosen once.
  std::vector<Fields> entriesOf(const char* setting, const char* level, const std::function<void()>& body) {
    const pid_t pid = fork();
    if (pid == 0) {
      setting == nullptr ? unsetenv("FW_UPDATE_LOG") : setenv("FW_UPDATE_LOG", setting, 1);
      level == nullptr ? unsetenv("FW_UPDATE_LOG_LEVEL") : setenv("FW_UPDATE_LOG_LEVEL", level, 1);
      body();
      _exit(0);
    }
    int status = -1;
    std::vector<Fields> entries;
    bool ended = false;
    std::string packet(256 * 1024, '\0');
    // The queue of the socket is short: it is emptied while the child runs.
    while (!ended) {
      ended = waitpid(pid, &status, WNOHANG) == pid;
      ssize_t count;
      while ((count = recv(socket_, packet.data(), packet.size(), MSG_DONTWAIT)) > 0) {
        entries.push_back(fieldsOf(packet.substr(0, static_cast<std::size_t>(count))));
      }
      std::this_thread::yield();
    }
    EXPECT_EQ(status, 0);
    return entries;
  }

  int socket_ = -1;
};

TEST_F(JournalTest, TakesMessagesWithTheirFields) {
  for (const char* setting : {static_cast<const char*>(nullptr), "journal"}) {
    const auto entries = entriesOf(setting, nullptr, [] {
      __dlog_print(2, 6, "FWUPDATE", "%s: %s(%d) > Error : %s\n", "fw-update-symbol.cpp", "loadSymbol", 42,
                   "no");
    });

    ASSERT_THAT(entries, SizeIs(1));
    EXPECT_THAT(entries[0], Contains(Pair("MESSAGE", "fw-update-symbol.cpp: loadSymbol(42) > Error : no")));
    EXPECT_THAT(entries[0], Contains(Pair("PRIORITY", "3")));
    EXPECT_THAT(entries[0], Contains(Pair("SYSLOG_IDENTIFIER", "FWUPDATE")));
    EXPECT_THAT(entries[0], Contains(Pair("CODE_FILE", "fw-update-symbol.cpp")));
    EXPECT_THAT(entries[0], Contains(Pair("CODE_FUNC", "loadSymbol")));
    EXPECT_THAT(entries[0], Contains(Pair("CODE_LINE", "42")));
  }
}

TEST_F(JournalTest, GetsNoPlaceForAMessageThatNamesNone) {
  const auto entries = entriesOf(nullptr, nullptr, [] { __dlog_print(2, 4, "MODULE", "plain %d", 1); });

  ASSERT_THAT(entries, SizeIs(1));
  EXPECT_THAT(entries[0], Contains(Pair("MESSAGE", "plain 1")));
  EXPECT_THAT(entries[0], Contains(Pair("PRIORITY", "6")));
  EXPECT_THAT(entries[0], Not(Contains(Key("CODE_FILE"))));
}

TEST_F(JournalTest, GetsNoPlaceThatIsNotThere) {
  const auto entries = entriesOf(nullptr, nullptr, [] {
    const char* volatile nothing = nullptr;
    __dlog_print(2, 6, "FWUPDATE", "%s: %s(%d) > text", "file.cpp", nothing, 1);
    __dlog_print(2, 6, "FWUPDATE", "%s: %s(%d) > text", nothing, "function", 1);
  });

  ASSERT_THAT(entries, SizeIs(2));
  EXPECT_THAT(entries[0], Contains(Pair("MESSAGE", "file.cpp: (null)(1) > text")));
  EXPECT_THAT(entries[0], Not(Contains(Key("CODE_FILE"))));
  EXPECT_THAT(entries[1], Not(Contains(Key("CODE_FUNC"))));
}

TEST_F(JournalTest, SaysThatNobodyListens) {
  close(std::exchange(socket_, -1));

  entriesOf(nullptr, nullptr, [] {
    if (__dlog_print(2, 6, "FWUPDATE", "text") != -ECONNREFUSED) {
      _exit(1);
    }
  });
}

TEST_F(JournalTest, GetsNothingWhenAnotherSinkIsAskedFor) {
  EXPECT_THAT(entriesOf("none", nullptr, [] { __dlog_print(2, 6, "FWUPDATE", "x"); }), IsEmpty());
  EXPECT_THAT(entriesOf("syslog", nullptr, [] { __dlog_print(2, 6, "FWUPDATE", "x"); }), IsEmpty());
}

TEST_F(JournalTest, GetsOnlyMessagesOfTheLevelAndAbove) {
  struct {
    const char* level;
    std::size_t count;
  } const cases[] = {{nullptr, 5}, {"debug", 5}, {"info", 4}, {"warning", 3}, {"error", 2}, {"nonsense", 5}};
  for (const auto& one : cases) {
    const auto entries = entriesOf(nullptr, one.level, [] {
      close(STDERR_FILENO);
      for (int priority = 3; priority <= 7; ++priority) {
        __dlog_print(2, priority, "FWUPDATE", "at %d", priority);
      }
    });

    EXPECT_EQ(entries.size(), one.count) << (one.level == nullptr ? "unset" : one.level);
  }
}

TEST_F(JournalTest, GetsWholeMessagesFromSeveralThreads) {
  constexpr int kEach = 50;
  const auto entries = entriesOf(nullptr, nullptr, [] {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([i] {
        for (int k = 0; k < kEach; ++k) {
          __dlog_print(2, 6, "FWUPDATE", "%s", std::string(5000, static_cast<char>('a' + i)).c_str());
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  });

  ASSERT_THAT(entries, SizeIs(4 * kEach));
  for (const Fields& fields : entries) {
    const std::string& message = fields.at("MESSAGE");
    EXPECT_EQ(message, std::string(5000, message[0]));
  }
}

TEST_F(JournalTest, ShowsErrnoOfTheCallAndKeepsIt) {
  const auto entries = entriesOf(nullptr, nullptr, [] {
    const char* volatile format = "%s: %m";  // no literal: strict C++ does not know it
    errno = ENOSPC;
    __dlog_print(2, 6, "FWUPDATE", format, "why");
    if (errno != ENOSPC) {
      _exit(1);
    }
  });

  ASSERT_THAT(entries, SizeIs(1));
  EXPECT_THAT(entries[0], Contains(Pair("MESSAGE", "why: No space left on device")));
}

}  // namespace
