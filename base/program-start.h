// SPDX-License-Identifier: Apache-2.0
// Starts another program, and waits for what was started. One object, one start; not
// shared between threads.
#ifndef FW_BASE_PROGRAM_START_H
#define FW_BASE_PROGRAM_START_H

#include <spawn.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace base {

class ProgramStart {
 public:
  ProgramStart();
  ProgramStart(const ProgramStart&) = delete;
  ProgramStart& operator=(const ProgramStart&) = delete;
  ~ProgramStart();

  // What the program finds, in this order. Whatever is not said is as with the caller.
  // number is the null device.
  ProgramStart& withNothingAt(int number);
  // number is the caller's descriptor, which must be another one.
  ProgramStart& with(int descriptor, int number);
  ProgramStart& withNothingFrom(int number);
  ProgramStart& in(int directory);
  ProgramStart& in(const char* directory);
  // A session and signal settings of its own: no terminal, nothing blocked or ignored.
  ProgramStart& apart();

  // arguments[0] is looked up in PATH unless it has a "/". environment: "NAME=value".
  // 0, with the process, or an errno value.
  int run(const std::vector<std::string>& arguments, const std::vector<std::string>& environment,
          pid_t& process) const;

  // Runs it to its end. output gets what it writes to standard output, and an empty text
  // whenever a signal breaks in; when it throws, the program is asked to end (SIGTERM) and
  // waited for first. 0, with the status as waitpid gives it, or an errno value.
  using Output = std::function<void(std::string_view bytes)>;
  int runToEnd(const std::vector<std::string>& arguments, const std::vector<std::string>& environment,
               const Output& output, int& status);

 private:
  posix_spawn_file_actions_t actions_ = {};
  posix_spawnattr_t attributes_ = {};
};

// The caller's environment, without the variable of this name.
std::vector<std::string> environmentWithout(const std::string& name);

// Waits for the end of a child. Its status, as waitpid gives it; -1 when there is no such
// child.
int waitForEnd(pid_t child);

}  // namespace base

#endif
