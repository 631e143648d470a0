// SPDX-License-Identifier: Apache-2.0
// Runs a program, writes down the system calls of its threads, and interrupts it at one
// of them. A Tracer runs one program, on the thread that made it. Its children may be traced,
// too, as far as they run the program itself, and not another one.
#ifndef TESTS_SWEEP_TRACER_H
#define TESTS_SWEEP_TRACER_H

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <string>

constexpr int kNotTraced = 125;  // exit code
constexpr int kActionKill = 0;   // no errno value

// A call, and what becomes of it.
struct Target {
  std::string thread;
  std::string call;
  std::string subject;
  unsigned long number = 0;  // 0: no call
  int action = kActionKill;  // or the errno value that it returns
};

class Tracer {
 public:
  // record: the file for the calls. Throws std::system_error.
  Tracer(const char* record, Target target, bool withChildren = false);

  // The program's exit code. Throws std::system_error when it cannot be traced.
  int run(char** program);

 private:
  struct Thread {
    std::string name;
    pid_t process = -1;
    unsigned int started = 0;                    // threads and children
    std::map<std::string, unsigned long> calls;  // of each name and subject
    bool fails = false;                          // the call that it is in
  };

  struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };

  void start(char** program);
  void handleStop(pid_t id, int status);
  bool handleEvent(pid_t id, int event);
  void handleCall(pid_t id);
  void breakAtEntry();
  bool reachedEntry(pid_t id);
  void adopt(pid_t id, const std::string& name, pid_t process);
  void enterCall(pid_t id, std::uint64_t number, const std::uint64_t* arguments);
  void leaveCall(pid_t id);
  void interrupt(pid_t id, Thread& thread);
  void goOn(pid_t id, int signal) const;

  const Target target_;
  const bool withChildren_;
  const std::unique_ptr<std::FILE, CloseFile> record_;
  pid_t leader_ = -1;
  unsigned long entry_ = 0;  // the program's first own instruction
  long replaced_ = 0;        // what the break there replaces
  long argument_ = 0;        // that the failing call was given
  bool running_ = false;     // the program, no longer what loads it
  bool released_ = false;    // traced no more
  std::map<pid_t, Thread> threads_;
  std::set<pid_t> early_;  // stopped before their starter told of them
};

#endif
