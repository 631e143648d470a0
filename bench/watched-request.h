// SPDX-License-Identifier: Apache-2.0
// Requests of updates with the empty module and a tiny image, watched on their way. A
// program that links this takes the place of the functions of the C library that a
// request passes, to note when; the empty module calls back into it.
// The library loses the notification of a worker that ends before its caller waits,
// on purpose. So doUpdate answers when the caller waits, and not before.
// For one request at a time in a process.
#ifndef BENCH_WATCHED_REQUEST_H
#define BENCH_WATCHED_REQUEST_H

#include <array>
#include <chrono>
#include <functional>

namespace bench {

// In the order in which a request comes to them.
enum Moment : std::size_t {
  Called,
  LockAsked,
  LockHeld,
  ThreadAsked,
  ThreadRuns,
  ModuleCalled,
  ModuleAnswers,
  Returned,
  Moments
};

// Enters a device in memory and installs the module and its image.
void enterDeviceWithEmptyModule();

// One update of the module. Its moments are in lastRequest() until the next. Returns
// the facade's result.
int requestUpdate();
const std::array<std::chrono::steady_clock::time_point, Moments>& lastRequest();

// Runs in the module's doUpdate, before it waits for its caller; may be empty.
extern std::function<void()> onDoUpdate;

}  // namespace bench

#endif
