// SPDX-License-Identifier: Apache-2.0
#include "entry-line.h"

#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "clean-output.h"
#include "file-descriptor.h"

namespace {

using tracetool::lineOf;

// Standard output on a terminal while this lives.
class OutputOnATerminal {
 public:
  OutputOnATerminal() {
    setenv("TERM", "xterm", 1);
    unsetenv("NO_COLOR");
    std::fflush(stdout);
    int controlling = -1;
    int shown = -1;
    if (openpty(&controlling, &shown, nullptr, nullptr, nullptr) != 0) {
      std::abort();
    }
    controlling_.reset(controlling);
    dup2(shown, STDOUT_FILENO);
    close(shown);
  }
  OutputOnATerminal(const OutputOnATerminal&) = delete;
  OutputOnATerminal& operator=(const OutputOnATerminal&) = delete;
  ~OutputOnATerminal() { dup2(before_.get(), STDOUT_FILENO); }

 private:
  base::FileDescriptor before_{dup(STDOUT_FILENO)};
  base::FileDescriptor controlling_;
};

std::string lineWith(const std::string& text) {
  tracetool::TraceFile file;
  file.trace.processId = 77;
  tracetool::Entry entry;
  entry.file = &file;
  entry.message.threadId = 78;
  entry.message.function = "work";
  entry.message.line = 42;
  entry.message.text = text;
  const std::string line = lineOf(entry);
  return line.substr(line.find("77/78"));
}

TEST(EntryLine, HasErrorsInRedAndHeadingsInBoldOnATerminal) {
  std::vector<std::string> lines;
  {
    const OutputOnATerminal terminal;
    for (const char* text : {"Error: no image\n", "===== begin", "no Error ====="}) {
      lines.push_back(lineWith(text));
    }
  }

  EXPECT_EQ(lines[0], "77/78            work(42)  " + base::terminalOrder(base::Order::Red) +
                          "Error: no image" + base::terminalOrder(base::Order::Plain) + "\n");
  EXPECT_EQ(lines[1], "77/78            work(42)  " + base::terminalOrder(base::Order::Bold) + "===== begin" +
                          base::terminalOrder(base::Order::Plain) + "\n");
  EXPECT_EQ(lines[2], "77/78            work(42)  no Error =====\n");
}

TEST(EntryLine, IsPlainElsewhere) {
  EXPECT_EQ(lineWith("Error: no image\n\n"), "77/78            work(42)  Error: no image\n");
  EXPECT_EQ(lineWith(""), "77/78            work(42)  \n");
}

}  // namespace
