// SPDX-License-Identifier: Apache-2.0
// Preloaded into the command: notes the platform calls of a run, in their order, in
// the file that PLATFORM_CALLS names, and passes them on to the platform.
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "device-power.h"
#include "lwipc.h"

namespace {

void note(const std::string& call) {
  const int file = open(std::getenv("PLATFORM_CALLS"), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  const std::string line = call + "\n";
  [[maybe_unused]] const ssize_t written = write(file, line.data(), line.size());
  close(file);
}

template <typename Function>
Function next(Function, const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

int device_power_lock_state(int state, int timeout_ms) {
  note("lock " + std::to_string(state) + " " + std::to_string(timeout_ms));
  return next(&device_power_lock_state, "device_power_lock_state")(state, timeout_ms);
}

int device_power_unlock_state(int state) {
  note("unlock " + std::to_string(state));
  return next(&device_power_unlock_state, "device_power_unlock_state")(state);
}

int LwipcEventDone(const char* event) {
  note(std::string("event ") + event);
  return next(&LwipcEventDone, "LwipcEventDone")(event);
}
