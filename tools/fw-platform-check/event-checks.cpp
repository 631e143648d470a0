// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <cerrno>
#include <string>

#include "checks.h"
#include "lwipc.h"
#include "program-start.h"
#include "runner.h"

namespace conformance {
namespace {

constexpr int kPatienceMs = 5000;

// One that nobody has signalled; events stay until the device starts anew.
std::string freshEvent(const char* purpose) {
  return "/fw-platform-check/" + std::string(purpose) + "." + std::to_string(getpid());
}

pid_t waitInAnotherProcess(const std::string& event, int timeoutMs) {
  return startChild([&] { return LwipcEventWait(event.c_str(), timeoutMs) == 0; });
}

}  // namespace

Finding eventStaysDone() {
  const std::string event = freshEvent("stays");
  if (LwipcEventWait(event.c_str(), 0) == 0) {
    return broken("an event that nobody signalled is done");
  }
  if (const int result = LwipcEventDone(event.c_str()); result != 0) {
    return broken("signalling returned " + std::to_string(result));
  }
  if (LwipcEventWait(event.c_str(), 0) != 0) {
    return broken("the event is not done for the process that signalled it");
  }
  return base::waitForEnd(waitInAnotherProcess(event, 0)) == 0 ? kept()
                                                               : broken("it is not done for another process");
}

Finding eventWakesAnotherProcess() {
  const std::string event = freshEvent("wakes");
  const pid_t waiter = waitInAnotherProcess(event, kPatienceMs);
  usleep(200000);  // so that it mostly waits already; done before is right as well
  LwipcEventDone(event.c_str());
  return base::waitForEnd(waiter) == 0 ? kept() : broken("a waiting process was not woken");
}

Finding eventWaitsNoLonger() {
  const std::string event = freshEvent("waits");
  const int result = LwipcEventWait(event.c_str(), 100);
  return result == -ETIMEDOUT ? kept() : broken("the wait ended with " + std::to_string(result));
}

}  // namespace conformance
