// SPDX-License-Identifier: Apache-2.0
// Writes the counters of a program and of the project's libraries in it also when the
// process ends by _exit, as forked children do, or goes on in another program. Part of
// every program of the coverage build, of no other.
#include "exit.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>

extern "C" void __gcov_dump();
extern "C" void __gcov_reset();

namespace {

std::array<std::atomic<const CoverageCounters*>, 8> libraries{};

constexpr CoverageCounters kOfTheProgram{__gcov_dump, __gcov_reset};

void ofEach(void (*const CoverageCounters::*function)()) {
  (kOfTheProgram.*function)();
  for (const auto& library : libraries) {
    if (const CoverageCounters* const counters = library.load(); counters != nullptr) {
      (counters->*function)();
    }
  }
}

}  // namespace

void fw_coverage_add(const CoverageCounters* counters) {
  for (auto& library : libraries) {
    const CoverageCounters* free = nullptr;
    if (library.compare_exchange_strong(free, counters)) {
      return;
    }
  }
}

extern "C" __attribute__((noreturn, visibility("default"))) void _exit(int status) {
  ofEach(&CoverageCounters::write);
  for (;;) {
    syscall(SYS_exit_group, status);
  }
}

extern "C" __attribute__((noreturn, visibility("default"))) void _Exit(int status) {
  _exit(status);
}

extern "C" __attribute__((visibility("default"))) int execve(const char* path, char* const argv[],
                                                             char* const envp[]) {
  ofEach(&CoverageCounters::write);
  const long failed = syscall(SYS_execve, path, argv, envp);
  const int error = errno;
  ofEach(&CoverageCounters::restart);
  errno = error;
  return static_cast<int>(failed);
}
