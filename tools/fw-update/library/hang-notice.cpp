// SPDX-License-Identifier: Apache-2.0
#include "library/hang-notice.h"

#include <chrono>

#include "command-line.h"
#include "frame/report.h"
#include "isolation/supervised.h"
#include "outcomes.h"
#include "signal-guards.h"

namespace tool {
namespace {

// No component needs as long to tell its version.
constexpr std::chrono::seconds kPatience{5};

Finding hangOf(const std::string& module) {
  constexpr const char* kNotYet = " has not answered for 5 s, and is still waited for.";
  return {Outcome::ModuleHung, (module.empty() ? "A module" : module) + kNotYet,
          "End the command with Ctrl-C. To see which module it is, and at what: fw-update list --isolated "
          "--patience 10"};
}

}  // namespace

HangNotice::HangNotice(const std::string& module) {
  if (supervised::isSupervised()) {
    return;
  }
  const base::SignalsLater later;  // they are the command's
  watcher_ = std::thread([this, module] { watch(module); });
}

HangNotice::~HangNotice() {
  if (!watcher_.joinable()) {
    return;
  }
  {
    const std::lock_guard lock(mutex_);
    isOver_ = true;
  }
  ended_.notify_one();
  watcher_.join();
}

void HangNotice::watch(const std::string& module) {
  std::unique_lock lock(mutex_);
  if (!ended_.wait_for(lock, kPatience, [this] { return isOver_; })) {
    const Finding finding = hangOf(module);
    frame::complain(program().info.name, finding.message, finding.remedy);
  }
}

}  // namespace tool
