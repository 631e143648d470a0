// SPDX-License-Identifier: Apache-2.0
#include "dlog.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "logging-child.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

constexpr int kLogId = 2;

std::string readAll(int fd) {
  std::string text;
  char block[4096];
  ssize_t count;
  while ((count = read(fd, block, sizeof block)) > 0) {
    text.append(block, static_cast<std::size_t>(count));
  }
  return text;
}

// What a child writes to a pipe as its stderr.
std::string stderrOf(const char* setting, const std::function<int()>& body) {
  int ends[2];
  EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const LoggingChild child(setting, ends[1], body);
  close(ends[1]);
  std::string text = readAll(ends[0]);
  close(ends[0]);
  EXPECT_EQ(child.wait(), 0);
  return text;
}

// What a child writes to its stderr, one entry for each write it makes.
std::vector<std::string> writesOf(const std::function<int()>& body) {
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
  const LoggingChild child("stderr", ends[1], body);
  close(ends[1]);
  std::vector<std::string> writes;
  std::vector<char> packet(256 * 1024);
  ssize_t count;
  while ((count = recv(ends[0], packet.data(), packet.size(), 0)) > 0) {
    writes.emplace_back(packet.data(), static_cast<std::size_t>(count));
  }
  close(ends[0]);
  EXPECT_EQ(child.wait(), 0);
  return writes;
}

// A line without its time, "" when the time does not look like one.
std::string withoutTime(const std::string& line) {
  static const std::string kShape = "00:00:00.000 ";
  for (std::size_t i = 0; i < kShape.size(); ++i) {
    const bool fits = i < line.size() && (kShape[i] == '0' ? isdigit(static_cast<unsigned char>(line[i])) != 0
                                                           : line[i] == kShape[i]);
    if (!fits) {
      return "";
    }
  }
  return line.substr(kShape.size());
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(withoutTime(line));
  }
  return lines;
}

int logAt(int priority, const char* text) {
  return __dlog_print(kLogId, priority, "FWUPDATE", "%s", text);
}

TEST(PlatformLog, WritesOneLineOnStderr) {
  const std::string text = stderrOf("stderr", [] {
    __dlog_print(kLogId, DLOG_ERROR_PRIORITY, "FWUPDATE", "%s: %s(%d) > Error : %s", "fw-update-symbol.cpp",
                 "loadSymbol", 42, "no such module");
    return 0;
  });

  EXPECT_EQ(withoutTime(text), "E FWUPDATE fw-update-symbol.cpp: loadSymbol(42) > Error : no such module\n");
}

constexpr long kDayMs = 86400L * 1000;

// Of this moment, where the day begins five and a half hours earlier.
long millisecondOfDay() {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return ((static_cast<long>(now.tv_sec % 86400) + 5 * 3600 + 1800) * 1000L + now.tv_nsec / 1000000) % kDayMs;
}

TEST(PlatformLog, ShowsTheTimeOfDay) {
  const long before = millisecondOfDay();
  const std::string text = stderrOf("stderr", [] {
    setenv("TZ", "XXX-5:30", 1);  // five and a half hours east
    logAt(6, "now");
    return 0;
  });

  const long after = millisecondOfDay();
  int hours = -1, minutes = -1, seconds = -1, milliseconds = -1;
  ASSERT_EQ(sscanf(text.c_str(), "%2d:%2d:%2d.%3d ", &hours, &minutes, &seconds, &milliseconds), 4) << text;
  const long shown = ((hours * 60L + minutes) * 60 + seconds) * 1000 + milliseconds;
  // Midnight may lie between the three.
  EXPECT_LE((shown - before + kDayMs) % kDayMs, (after - before + kDayMs) % kDayMs) << text;
}

TEST(PlatformLog, ShowsEachPriorityAsItsLetter) {
  const std::string text = stderrOf("stderr", [] {
    for (int priority = -1; priority <= 9; ++priority) {
      __dlog_print(kLogId, priority, "FWUPDATE", "%d", priority);
    }
    return 0;
  });

  EXPECT_THAT(linesOf(text), ElementsAre("D FWUPDATE -1", "D FWUPDATE 0", "D FWUPDATE 1", "D FWUPDATE 2",
                                         "D FWUPDATE 3", "I FWUPDATE 4", "W FWUPDATE 5", "E FWUPDATE 6",
                                         "E FWUPDATE 7", "E FWUPDATE 8", "E FWUPDATE 9"));
}

TEST(PlatformLog, WritesNothingWhenSwitchedOff) {
  const std::string text = stderrOf("none", [] { return logAt(6, "unseen"); });

  EXPECT_EQ(text, "");
}

TEST(PlatformLog, WritesNothingOnStderrByDefault) {
  for (const char* setting : {static_cast<const char*>(nullptr), "syslog"}) {
    EXPECT_EQ(stderrOf(setting, [] { return logAt(6, "for syslog") == 10 ? 0 : 1; }), "");
  }
}

TEST(PlatformLog, ComplainsOnceAboutAnUnknownSink) {
  const std::string text = stderrOf(
      "std\x1B"
      "err",
      [] {
        logAt(6, "one");
        logAt(6, "two");
        return 0;
      });

  EXPECT_EQ(text,
            "FW_UPDATE_LOG: unknown value \"std\\x1Berr\" (known: journal, syslog, stderr, none); messages "
            "go to syslog\n");
}

TEST(PlatformLog, MakesNoEmptyLinesOfTrailingLineFeeds) {
  const std::string text = stderrOf("stderr", [] {
    logAt(6, "lstat error\n");
    logAt(6, "two\n\n\n");
    logAt(6, "\n");
    errno = ENOSPC;  // of another call, and no word about the message
    return logAt(6, "");
  });

  EXPECT_THAT(linesOf(text),
              ElementsAre("E FWUPDATE lstat error", "E FWUPDATE two", "E FWUPDATE ", "E FWUPDATE "));
}

TEST(PlatformLog, KeepsAMessageOnOneLineWhateverItHolds) {
  const std::string text = stderrOf("stderr", [] {
    __dlog_print(kLogId, 6, "TAG\n", "a\nb %s%c\xFF", "\x1B[2J", '\0');
    return 0;
  });

  EXPECT_THAT(linesOf(text), ElementsAre("E TAG\\x0A a\\x0Ab \\x1B[2J\\x00\\xFF"));
}

TEST(PlatformLog, MakesOneWriteForEachMessageHoweverLong) {
  const std::string longText(100 * 1024, 'x');

  const std::vector<std::string> writes = writesOf([&] {
    logAt(6, "short");
    return logAt(6, longText.c_str()) == 100 * 1024 ? 0 : 1;
  });

  ASSERT_EQ(writes.size(), 2u);
  EXPECT_EQ(withoutTime(writes[0]), "E FWUPDATE short\n");
  EXPECT_TRUE(withoutTime(writes[1]) == "E FWUPDATE " + longText + "\n") << writes[1].size();
}

TEST(PlatformLog, KeepsWholeMessagesAroundTheFixedBuffersEnd) {
  for (const std::size_t length : {1022u, 1023u, 1024u, 1025u, 2048u}) {
    const std::string message(length, 'y');

    const std::vector<std::string> writes = writesOf([&] { return logAt(6, message.c_str()) < 0; });

    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(withoutTime(writes[0]), "E FWUPDATE " + message + "\n");
  }
}

TEST(PlatformLog, ShowsErrnoOfTheCallAndKeepsIt) {
  const std::string padding(2000, '.');
  // No literal: ISO C++ knows no %m, and the compiler would say so.
  const std::string format = "%s %m";

  const std::vector<std::string> writes = writesOf([&] {
    errno = ENOSPC;
    __dlog_print(kLogId, 6, "FWUPDATE", format.c_str(), "short:");
    const bool keptShort = errno == ENOSPC;
    errno = EXDEV;
    __dlog_print(kLogId, 6, "FWUPDATE", format.c_str(), padding.c_str());
    return keptShort && errno == EXDEV ? 0 : 1;
  });

  ASSERT_EQ(writes.size(), 2u);
  EXPECT_EQ(withoutTime(writes[0]), "E FWUPDATE short: No space left on device\n");
  EXPECT_EQ(withoutTime(writes[1]), "E FWUPDATE " + padding + " Invalid cross-device link\n");
}

TEST(PlatformLog, KeepsErrnoWithEverySink) {
  for (const char* setting : {"syslog", "none", "nonsense"}) {
    stderrOf(setting, [] {
      errno = EDOM;
      logAt(6, "message");
      return errno == EDOM ? 0 : 1;
    });
  }
}

TEST(PlatformLog, TakesANullTagAndANullFormat) {
  const std::string text = stderrOf("stderr", [] {
    const char* volatile nothing = nullptr;
    __dlog_print(kLogId, 6, nullptr, "no tag");
    return __dlog_print(kLogId, 6, "FWUPDATE", nothing, 0) == -EINVAL ? 0 : 1;
  });

  EXPECT_THAT(linesOf(text), ElementsAre("E (null) no tag"));
}

TEST(PlatformLog, ReportsAStderrThatCannotBeWritten) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  close(ends[0]);

  const LoggingChild child("stderr", ends[1], [] {
    signal(SIGPIPE, SIG_DFL);
    return logAt(6, "for nobody") == -EPIPE && logAt(6, "again") == -EPIPE ? 0 : 1;
  });
  close(ends[1]);

  EXPECT_EQ(child.wait(), 0) << "negative: the signal that ended it";
}

char stateOf(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string number, name;
  char state = '?';
  file >> number >> name >> state;
  return state;
}

// A pipe that takes no more, which nobody waits for.
class FullPipe {
 public:
  FullPipe() {
    EXPECT_EQ(pipe2(ends_, O_CLOEXEC | O_NONBLOCK), 0);
    const std::string block(4096, '.');
    while (write(ends_[1], block.data(), block.size()) > 0) {
    }
  }
  ~FullPipe() { close(ends_[0]); }
  FullPipe(const FullPipe&) = delete;
  FullPipe& operator=(const FullPipe&) = delete;

  int writingEnd() const { return ends_[1]; }
  // All that was written, when nobody has the other end any more.
  std::string content() {
    close(ends_[1]);
    fcntl(ends_[0], F_SETFL, 0);
    return readAll(ends_[0]);
  }

 private:
  int ends_[2] = {-1, -1};
};

TEST(PlatformLog, WaitsForAFullStderrThatIsReadAgain) {
  const std::string message(200 * 1024, 'l');  // more than the pipe takes at once
  FullPipe pipe;
  const LoggingChild child("stderr", pipe.writingEnd(), [&] { return logAt(6, message.c_str()) < 0; });
  while (stateOf(child.id()) == 'R') {
    sched_yield();
  }

  const std::string text = pipe.content();

  EXPECT_EQ(child.wait(), 0);
  EXPECT_TRUE(withoutTime(text.substr(text.find_first_not_of('.'))) == "E FWUPDATE " + message + "\n")
      << text.size();
}

TEST(PlatformLog, GoesOnAfterASignal) {
  FullPipe pipe;
  fcntl(pipe.writingEnd(), F_SETFL, 0);
  struct sigaction nothing = {};
  nothing.sa_handler = [](int) {};
  sigaction(SIGUSR1, &nothing, nullptr);
  const LoggingChild child("stderr", pipe.writingEnd(), [] { return logAt(6, "late") == 4 ? 0 : 1; });
  while (stateOf(child.id()) == 'R') {
    sched_yield();
  }

  kill(child.id(), SIGUSR1);
  while (stateOf(child.id()) == 'R') {
    sched_yield();
  }
  const std::string text = pipe.content();

  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(withoutTime(text.substr(text.find_first_not_of('.'))), "E FWUPDATE late\n");
}

TEST(PlatformLog, GivesUpAFullStderrThatNobodyReads) {
  const FullPipe pipe;

  const LoggingChild child("stderr", pipe.writingEnd(),
                           [] { return logAt(6, "for nobody") == -EAGAIN ? 0 : 1; });

  EXPECT_EQ(child.wait(), 0);
}

TEST(PlatformLog, KeepsASigpipeOfTheProgramsOwn) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  close(ends[0]);

  const LoggingChild child("stderr", ends[1], [] {
    sigset_t sigpipe;
    sigemptyset(&sigpipe);
    sigaddset(&sigpipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &sigpipe, nullptr);
    const auto isPending = [] {
      sigset_t pending;
      sigpending(&pending);
      return sigismember(&pending, SIGPIPE) == 1;
    };
    const bool refused = logAt(6, "for nobody") == -EPIPE;
    const bool takenBack = !isPending();
    raise(SIGPIPE);
    logAt(6, "for nobody");
    return refused && takenBack && isPending() ? 0 : 1;
  });
  close(ends[1]);

  EXPECT_EQ(child.wait(), 0);
}

TEST(PlatformLog, LeavesTheProgramsSignalsAsTheyWere) {
  stderrOf("stderr", [] {
    logAt(6, "text");
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    return sigismember(&blocked, SIGPIPE);
  });
}

TEST(PlatformLog, WritesNothingOfWhatCannotBeFormatted) {
  const std::string format = "%ls";  // no literal: for the library alone

  const std::string text = stderrOf("stderr", [&] {
    const wchar_t inNoPlainLocale[] = {0x4E2D, 0};
    return __dlog_print(kLogId, 6, "FWUPDATE", format.c_str(), inNoPlainLocale) == -EILSEQ ? 0 : 1;
  });

  EXPECT_EQ(text, "");
}

TEST(PlatformLog, DoesNotMixTheLinesOfSeveralThreads) {
  constexpr int kThreads = 8;
  constexpr int kMessages = 50;
  constexpr int kLength = 20000;  // more than a pipe takes at once

  const std::string text = stderrOf("stderr", [] {
    fcntl(STDERR_FILENO, F_SETPIPE_SZ, 4096);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([i] {
        const std::string message(kLength, static_cast<char>('a' + i));
        for (int n = 0; n < kMessages; ++n) {
          logAt(6, message.c_str());
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    return 0;
  });

  std::map<std::string, int> counted;
  for (const std::string& line : linesOf(text)) {
    ++counted[line];
  }
  ASSERT_EQ(counted.size(), static_cast<std::size_t>(kThreads)) << "some line is a mixture";
  for (int i = 0; i < kThreads; ++i) {
    EXPECT_EQ(counted["E FWUPDATE " + std::string(kLength, static_cast<char>('a' + i))], kMessages);
  }
}

}  // namespace
