// SPDX-License-Identifier: Apache-2.0
// The gate before the standard streams. Each test has a process of its own under ctest,
// and another one for what it writes: the gate stays until the process ends.
#include "clean-output.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using base::Order;
using base::terminalOrder;

// What a process writes that has the gate and leaves by exit.
std::string writtenBy(const std::function<void()>& writes, const std::string& file = "") {
  char path[] = "/tmp/clean-output-XXXXXX";
  const int output = file.empty() ? mkstemp(path) : open(file.c_str(), O_WRONLY);
  const pid_t child = fork();
  if (child == 0) {
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    base::cleanStandardOutput();
    writes();
    std::exit(0);
  }
  waitpid(child, nullptr, 0);
  close(output);
  std::ostringstream content;
  content << std::ifstream(path).rdbuf();
  unlink(path);
  return content.str();
}

TEST(CleanOutput, WritesWhatIsNotSafeToShowAsHexOnBothStreams) {
  EXPECT_EQ(writtenBy([] {
              std::cout << "a\x1B[2J" << 'b' << '\x9B' << "\n" << std::flush;
              std::cerr << "c\xC2\x9B"
                        << "d\n";
            }),
            "a\\x1B[2Jb\\x9B\nc\\xC2\\x9B"
            "d\n");
}

TEST(CleanOutput, LeavesTheProgramsOwnOrdersToTheTerminal) {
  EXPECT_EQ(writtenBy([] {
              for (const Order order : {Order::Green, Order::Yellow, Order::Red, Order::Bold, Order::Plain,
                                        Order::LineStart, Order::EraseToEnd}) {
                std::cout << terminalOrder(order) << '.';
              }
              std::cout << base::emptyLine();
            }),
            "\x1B[32m.\x1B[33m.\x1B[31m.\x1B[1m.\x1B[0m.\r.\x1B[K.\r\x1B[K");
}

TEST(CleanOutput, TakesNoOrderFromAnotherProcess) {
  const std::string shown = writtenBy([] {
    std::cout << "\x1B"
                 "0123456789abcdefC";
  });

  EXPECT_EQ(shown, "\\x1B0123456789abcdefC");
}

TEST(CleanOutput, ShowsAnOrderThatDoesNotExistAsNothing) {
  EXPECT_EQ(writtenBy([] {
              std::string order = terminalOrder(Order::Green);
              order.back() = 'z';
              std::cout << order;
            }),
            "z");
}

TEST(CleanOutput, KeepsCharactersAndOrdersWholeInLongOutput) {
  std::string text, wanted;
  for (int i = 0; i < 20000; ++i) {
    wanted += "\xE2\x82\xAC\x1B[31m";
    text += "\xE2\x82\xAC";
  }

  const std::string shown = writtenBy([] {
    for (int i = 0; i < 20000; ++i) {
      for (const char byte : "\xE2\x82\xAC" + terminalOrder(Order::Red)) {
        std::cout << byte;
      }
    }
  });

  EXPECT_TRUE(shown == wanted) << shown.size() << " bytes instead of " << wanted.size();
}

TEST(CleanOutput, ComesWholeFromSeveralThreads) {
  const std::string shown = writtenBy([] {
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([] {
        for (int line = 0; line < 5000; ++line) {
          std::cout.write("0123456789\n", 11);
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  });

  std::istringstream lines(shown);
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    ASSERT_EQ(line, "0123456789");
  }
  EXPECT_EQ(count, 20000);
}

TEST(CleanOutput, TellsTheProgramThatADiskIsFull) {
  char path[] = "/tmp/clean-output-XXXXXX";
  const int answer = mkstemp(path);

  writtenBy(
      [answer] {
        std::cout << "text" << std::flush;
        [[maybe_unused]] const auto written = write(answer, std::cout.good() ? "good" : "lost", 4);
      },
      "/dev/full");

  std::ostringstream content;
  content << std::ifstream(path).rdbuf();
  close(answer);
  unlink(path);
  EXPECT_EQ(content.str(), "lost");
}

}  // namespace
