// SPDX-License-Identifier: Apache-2.0
// Linked with the thread sanitizer alone, into programs that count threads: only a
// process with one thread can enter a device, and only one in which every thread waits is
// seen to wait for the lock. The sanitizer has a thread of its own, for options that are
// not used here: it starts it with the program's first thread and in every forked child.
#include <sanitizer/common_interface_defs.h>
#include <unistd.h>

#include <thread>

namespace {

// Once ended, it is not started again.
struct SanitizerThread {
  SanitizerThread() {
    std::thread([] {}).join();
    __sanitizer_sandbox_on_notify(nullptr);
  }
};
const SanitizerThread ended;

}  // namespace

// In place of the sanitizer's. Such programs have one thread when they fork, so the child
// needs nothing more.
extern "C" __attribute__((visibility("default"))) pid_t fork() noexcept {
  return _Fork();
}
