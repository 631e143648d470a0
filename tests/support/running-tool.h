// SPDX-License-Identifier: Apache-2.0
// One run of the command that a test program is about, in a process of its own, through
// pipes or on a terminal. The macro TESTED_TOOL is its path. Owns the process and kills it when it still runs
// at the end. For the thread that runs the test.
#ifndef TESTS_SUPPORT_RUNNING_TOOL_H
#define TESTS_SUPPORT_RUNNING_TOOL_H

#include <sys/types.h>

#include <string>
#include <vector>

struct Launch {
  std::vector<std::string> environment{};  // "NAME=value", besides the test's own
  bool overridesFileModes = true;          // false: file modes bind the command, although it is root
  unsigned short terminalColumns = 0;      // above 0: on a terminal of that width
};

class RunningTool {
 public:
  RunningTool(const std::vector<std::string>& arguments, const Launch& launch);
  ~RunningTool();
  RunningTool(const RunningTool&) = delete;
  RunningTool& operator=(const RunningTool&) = delete;

  // Blocks until the output contains the text; throws when it ends before.
  void waitFor(const std::string& text);
  // The same for the error output.
  void waitForError(const std::string& text);
  void kill(int signal);
  // On a terminal: as if these keys were pressed.
  void type(const std::string& keys);
  // Stops reading: the command's further output meets a closed pipe.
  void closeOutput();

  // Blocks until the end. The exit code, or minus the signal.
  int finish();

  const std::string& out() const { return out_; }  // on a terminal: everything
  const std::string& err() const { return err_; }

 private:
  bool readSome();
  void waitUntilIn(const std::string& output, const std::string& text);

  pid_t id_ = 0;
  int outEnd_ = -1;
  int errEnd_ = -1;
  std::string out_;
  std::string err_;
};

#endif
