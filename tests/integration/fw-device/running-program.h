// SPDX-License-Identifier: Apache-2.0
// A program that a test started, with pipes to its standard input, output and
// error. The test's own thread reads and waits; ends the program with the object.
#ifndef RUNNING_PROGRAM_H
#define RUNNING_PROGRAM_H

#include <sys/types.h>

#include <string>
#include <vector>

struct ProgramStart {
  std::vector<std::string> command;
  std::string directory = "/";
  uid_t user = 0;  // to become first, with the group of the same number; 0: stay as one is
  std::vector<std::string> environment;  // "NAME=value", beside the test's own
};

struct ProgramResult {
  int exitCode = -1;  // -1 when a signal ended it
  int signal = 0;
  std::string output;
  std::string error;
};

class RunningProgram {
 public:
  explicit RunningProgram(const ProgramStart& start);
  RunningProgram(const RunningProgram&) = delete;
  RunningProgram& operator=(const RunningProgram&) = delete;
  ~RunningProgram();

  // The next line of standard output, without its end; empty when there is none.
  std::string readLine();
  void write(const std::string& text);
  void kill(int signal);
  bool isRunning() const;
  // Closes the program's input and collects what is left of its output.
  ProgramResult wait();

 private:
  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  int error_ = -1;
};

ProgramResult runProgram(const ProgramStart& start, const std::string& input = "");

#endif
