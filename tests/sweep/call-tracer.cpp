// SPDX-License-Identifier: Apache-2.0
// Runs a program and writes down every system call of its threads; at one of them it
// kills the program or makes the call fail.
//
// usage: call-tracer [--children] RECORD [THREAD CALL SUBJECT NUMBER kill|ERRNO] -- PROGRAM [ARGUMENT...]
//
// A call is named by its thread, its name, what it is about (call-subject.h), and its
// number among the thread's calls of that name about the same. A thread is named by
// where it came from: "0" is the first one, "0.2" the second that "0" started. strace
// counts in each thread too, but cannot say in which one it is to act.
//
// Calls count from the program's own first instruction on: loading it is no part of it.
// RECORD gets one line a call, with tabs between thread, name, subject and number; the
// call that was acted on has a "!" before its thread. After it the program goes on
// untraced. The exit code is the program's, 128 + N when signal N ended it, and 125
// when the program could not be traced.
//
// Children of the program are not traced, only its threads. With --children those are that go on as
// the same program, named as threads are, and a kill is that of the child or of its parent alone.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "tracer.h"

namespace {

struct CommandLine {
  bool withChildren = false;
  const char* record = nullptr;
  Target target;
  char** program = nullptr;
};

CommandLine parse(int count, char** words) {
  const bool withChildren = count > 1 && std::string(words[1]) == "--children";
  count -= withChildren ? 1 : 0;
  words += withChildren ? 1 : 0;
  const std::vector<std::string> given(words, words + count);
  const auto end = std::find(given.begin(), given.end(), "--");
  const auto options = end - given.begin();
  if (end == given.end() || end + 1 == given.end() || (options != 2 && options != 7)) {
    throw std::invalid_argument(
        "usage: call-tracer [--children] RECORD [THREAD CALL SUBJECT NUMBER kill|ERRNO] -- PROGRAM...");
  }
  CommandLine line;
  line.withChildren = withChildren;
  line.record = words[1];
  line.program = words + options + 1;
  if (options == 7) {
    const int action = given[6] == "kill" ? kActionKill : std::stoi(given[6]);
    line.target = {given[2], given[3], given[4], std::stoul(given[5]), action};
  }
  return line;
}

}  // namespace

int main(int count, char** words) {
  try {
    const CommandLine line = parse(count, words);
    return Tracer(line.record, line.target, line.withChildren).run(line.program);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "call-tracer: %s\n", error.what());
    return kNotTraced;
  }
}
