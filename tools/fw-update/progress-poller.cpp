#include "progress-poller.h"

#include <chrono>
#include <exception>
#include <thread>

#include "fw-update-symbol-manager.h"

namespace tool {
namespace {

constexpr std::chrono::milliseconds interval{100};
constexpr std::chrono::milliseconds patience{500};

// Not the facade's query: that one logs each time.
std::optional<unsigned int> ask(const std::string& module) {
  unsigned int percent = 0;
  try {
    if (FWUpdateSymbolManager::getInstance()->getFirmwareUpdateProgress(module, &percent) == 0)
      return percent;
  } catch (const std::exception&) {
    // A module that throws here reports no progress.
  }
  return std::nullopt;
}

}  // namespace

ProgressPoller::ProgressPoller(const std::string& module) : state(std::make_shared<State>()) {
  std::thread([shared = state, module] { poll(shared, module); }).detach();
}

void ProgressPoller::poll(const std::shared_ptr<State>& state, const std::string& module) {
  std::unique_lock lock(state->mutex);
  while (!state->stopping) {
    lock.unlock();
    const auto percent = ask(module);
    lock.lock();
    state->percent = percent;
    state->changed.wait_for(lock, interval, [&] { return state->stopping; });
  }
  state->ended = true;
  state->changed.notify_all();
}

std::optional<unsigned int> ProgressPoller::percent() const {
  const std::lock_guard lock(state->mutex);
  return state->percent;
}

bool ProgressPoller::stop() {
  std::unique_lock lock(state->mutex);
  state->stopping = true;
  state->changed.notify_all();
  return state->changed.wait_for(lock, patience, [this] { return state->ended; });
}

}  // namespace tool
