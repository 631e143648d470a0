// SPDX-License-Identifier: Apache-2.0
#include "terminal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "clean-output.h"
#include "file-descriptor.h"
#include "live-line.h"

namespace {

using base::FileDescriptor;
using base::Order;
using tool::Colour;

class Terminal : public ::testing::Test {
 protected:
  void SetUp() override {
    int controlling = -1;
    int shown = -1;
    ASSERT_EQ(openpty(&controlling, &shown, nullptr, nullptr, nullptr), 0);
    controlling_.reset(controlling);
    shown_.reset(shown);
    setenv("TERM", "xterm", 1);
    unsetenv("NO_COLOR");
  }

  void setWidth(unsigned short columns) const {
    winsize size{};
    size.ws_col = columns;
    ASSERT_EQ(ioctl(shown_.get(), TIOCSWINSZ, &size), 0);
  }
  // So many bytes of what was written to the terminal; fewer when no more come.
  std::string screen(std::size_t size) const {
    std::string screen(size, '\0');
    std::size_t done = 0;
    pollfd more{controlling_.get(), POLLIN, 0};
    while (done < size && poll(&more, 1, 5000) == 1) {
      const ssize_t got = read(controlling_.get(), screen.data() + done, size - done);
      if (got <= 0) {
        break;
      }
      done += static_cast<std::size_t>(got);
    }
    return screen.substr(0, done);
  }

  FileDescriptor controlling_, shown_;
};

// Standard error goes elsewhere as long as it lives.
class StandardErrorOn {
 public:
  explicit StandardErrorOn(int descriptor) : before_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)) {
    dup2(descriptor, STDERR_FILENO);
  }
  ~StandardErrorOn() { dup2(before_.get(), STDERR_FILENO); }
  StandardErrorOn(const StandardErrorOn&) = delete;
  StandardErrorOn& operator=(const StandardErrorOn&) = delete;

 private:
  FileDescriptor before_;
};

TEST_F(Terminal, IsToldFromAFile) {
  const FileDescriptor file(open("/dev/null", O_WRONLY | O_CLOEXEC));

  EXPECT_TRUE(tool::isTerminal(shown_.get()));
  EXPECT_FALSE(tool::isTerminal(file.get()));
}

TEST_F(Terminal, IsNoneWhenItKnowsNoCursor) {
  setenv("TERM", "dumb", 1);
  EXPECT_FALSE(tool::isTerminal(shown_.get()));

  unsetenv("TERM");
  EXPECT_TRUE(tool::isTerminal(shown_.get()));
}

TEST_F(Terminal, TellsItsWidth) {
  setWidth(100);
  EXPECT_EQ(tool::terminalWidth(shown_.get()), 100U);
  setWidth(1);
  EXPECT_EQ(tool::terminalWidth(shown_.get()), 1U);
}

TEST_F(Terminal, IsEightyWideWhenItDoesNotTell) {
  setWidth(0);

  EXPECT_EQ(tool::terminalWidth(shown_.get()), 80U);
}

TEST_F(Terminal, HasNoWidthWhenItIsAFile) {
  const FileDescriptor file(open("/dev/null", O_WRONLY | O_CLOEXEC));

  EXPECT_EQ(tool::terminalWidth(file.get()), std::string::npos);
}

// As a stream with the gate takes it.
std::string inOrders(Order order, const std::string& text) {
  return base::terminalOrder(order) + text + base::terminalOrder(Order::Plain);
}

TEST_F(Terminal, ShowsColours) {
  EXPECT_EQ(tool::coloured("a", Colour::Green, shown_.get()), inOrders(Order::Green, "a"));
  EXPECT_EQ(tool::coloured("a", Colour::Yellow, shown_.get()), inOrders(Order::Yellow, "a"));
  EXPECT_EQ(tool::coloured("a", Colour::Red, shown_.get()), inOrders(Order::Red, "a"));
  EXPECT_EQ(tool::coloured("a", Colour::Bold, shown_.get()), inOrders(Order::Bold, "a"));
}

TEST_F(Terminal, ShowsNoColoursWhenNobodyWantsThem) {
  setenv("NO_COLOR", "1", 1);
  EXPECT_EQ(tool::coloured("a", Colour::Red, shown_.get()), "a");

  setenv("NO_COLOR", "", 1);
  EXPECT_EQ(tool::coloured("a", Colour::Red, shown_.get()), inOrders(Order::Red, "a"));
}

TEST_F(Terminal, GivesAFileNoColours) {
  const FileDescriptor file(open("/dev/null", O_WRONLY | O_CLOEXEC));

  EXPECT_EQ(tool::coloured("a", Colour::Red, file.get()), "a");
}

TEST_F(Terminal, ShowsALineThatGoesWithItsOwner) {
  base::cleanStandardOutput();
  setWidth(10);
  const std::string cleared = "\r\x1b[K";
  const std::string cut = "012345678";  // the last column would begin another line
  {
    const StandardErrorOn terminal(shown_.get());
    tool::LiveLine line(STDERR_FILENO);
    line.show("0123456789");
  }

  EXPECT_EQ(screen(cleared.size() * 2 + cut.size()), "\r" + cut + "\x1b[K" + cleared);
}

TEST_F(Terminal, ShowsNoLineInAFile) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  const FileDescriptor reading(ends[0]);
  const FileDescriptor writing(ends[1]);
  {
    const StandardErrorOn file(writing.get());
    tool::LiveLine line(STDERR_FILENO);
    line.show("text");
  }

  char byte = 0;
  EXPECT_EQ(read(reading.get(), &byte, 1), -1);
}

}  // namespace
