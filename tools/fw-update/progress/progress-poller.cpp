// SPDX-License-Identifier: Apache-2.0
#include "progress/progress-poller.h"

#include <chrono>
#include <exception>
#include <system_error>
#include <thread>

#include "fw-update-symbol-manager.h"
#include "isolation/supervised.h"

namespace tool {
namespace {

constexpr std::chrono::milliseconds kInterval{100};
constexpr std::chrono::milliseconds kPatience{500};
constexpr unsigned int kCompleted = 100;

// Tells a watcher whose turn it is, should the module crash.
struct Asking {
  Asking() { supervised::tellProgress(true); }
  ~Asking() { supervised::tellProgress(false); }
  Asking(const Asking&) = delete;
  Asking& operator=(const Asking&) = delete;
};

// Not the facade's query: that one logs each time. More than all is not believed.
std::optional<unsigned int> ask(const std::string& module) {
  const Asking told;
  unsigned int percent = 0;
  try {
    if (FWUpdateSymbolManager::getInstance()->getFirmwareUpdateProgress(module, &percent) == 0 &&
        percent <= kCompleted) {
      return percent;
    }
  } catch (const std::exception&) {
    // A module that throws here reports no progress.
  }
  return std::nullopt;
}

}  // namespace

// An update goes on without progress when the device has no room for the thread.
ProgressPoller::ProgressPoller(const std::string& module) : state_(std::make_shared<State>()) {
  try {
    std::thread([shared = state_, module] { poll(shared, module); }).detach();
  } catch (const std::system_error&) {
    state_->ended = true;
  }
}

void ProgressPoller::poll(const std::shared_ptr<State>& state, const std::string& module) {
  std::unique_lock lock(state->mutex);
  while (!state->stopping) {
    lock.unlock();
    const auto answer = ask(module);
    lock.lock();
    // Until the module has begun it tells of the update before, which was completed.
    state->begun = state->begun || answer.value_or(kCompleted) != kCompleted;
    state->percent = state->begun ? answer : std::nullopt;
    state->changed.wait_for(lock, kInterval, [&] { return state->stopping; });
  }
  state->ended = true;
  state->changed.notify_all();
}

std::optional<unsigned int> ProgressPoller::percent() const {
  const std::lock_guard lock(state_->mutex);
  return state_->percent;
}

bool ProgressPoller::stop() {
  std::unique_lock lock(state_->mutex);
  state_->stopping = true;
  state_->changed.notify_all();
  return state_->changed.wait_for(lock, kPatience, [this] { return state_->ended; });
}

}  // namespace tool
