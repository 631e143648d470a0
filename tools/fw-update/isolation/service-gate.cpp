// SPDX-License-Identifier: Apache-2.0
#include "isolation/service-gate.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "job-gate.h"

namespace tool {
namespace {

// What the library logs last before a module's own code runs.
constexpr fwmessages::Event kReaching[] = {
    fwmessages::Event::WriteBegins,
    fwmessages::Event::PackageWriteBegins,
    fwmessages::Event::ProcedureBegins,
};

// The process that the service has started is the first of its session; it passes the signal on.
// A command that one signal does not end gets another.
[[noreturn]] void endCancelled() {
  for (;;) {
    if (kill(getsid(0), SIGTERM) != 0) {
      kill(getpid(), SIGTERM);
    }
    sleep(1);
  }
}

}  // namespace

std::optional<uid_t> askedThroughService() {
  const char* const text = std::getenv(fwjobs::kAskedByVariable);
  uid_t user = 0;
  if (text == nullptr || std::from_chars(text, text + std::strlen(text), user).ptr == text) {
    return std::nullopt;
  }
  return user;
}

bool isForEntryAlone() {
  return std::getenv(fwjobs::kOnlyEntryVariable) != nullptr;
}

void endWithServiceForEntry() {
  const char* const text = std::getenv(fwjobs::kOnlyEntryVariable);
  if (text == nullptr) {
    return;
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  pid_t service = 0;
  std::from_chars(text, text + std::strlen(text), service);
  if (getppid() != service) {
    _exit(EXIT_FAILURE);
  }
}

void passServiceGate(fwmessages::Event event) {
  const char* const path = std::getenv(fwjobs::kGateVariable);
  if (path == nullptr ||
      std::find(std::begin(kReaching), std::end(kReaching), event) == std::end(kReaching)) {
    return;
  }
  fwjobs::Gate gate = fwjobs::Gate::open(path);
  if (gate && !gate.reachModule()) {
    endCancelled();
  }
}

bool isCancelledThroughService() {
  const char* const path = std::getenv(fwjobs::kGateVariable);
  return path != nullptr && fwjobs::Gate::open(path).isCancelled();
}

}  // namespace tool
