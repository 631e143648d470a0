// SPDX-License-Identifier: Apache-2.0
// While one exists, Ctrl-C and the like end the tool in good order: the terminal
// line is finished and the device's update lock, if this process holds it, is
// released; nobody else would, and every later update would wait for ever.
// At most one at a time.
#ifndef FW_UPDATE_TOOL_INTERRUPTION_H
#define FW_UPDATE_TOOL_INTERRUPTION_H

#include <csignal>
#include <cstddef>
#include <functional>
#include <thread>

namespace tool {

class InterruptionGuard {
 public:
  // logMark: where the update's messages begin in the library's log.
  // onFirst: called, on a thread of the guard, for the first signal, which then
  // ends nothing; the second does. Empty: the first ends the tool.
  explicit InterruptionGuard(std::size_t logMark, std::function<void()> onFirst = nullptr);
  ~InterruptionGuard();
  InterruptionGuard(const InterruptionGuard&) = delete;
  InterruptionGuard& operator=(const InterruptionGuard&) = delete;

 private:
  static constexpr int kWatched[] = {SIGINT, SIGTERM, SIGHUP, SIGPIPE};
  static constexpr std::size_t kWatchedCount = sizeof kWatched / sizeof kWatched[0];

  void watch(std::size_t logMark, const std::function<void()>& onFirst) const;

  int readEnd_ = -1;
  struct sigaction before_[kWatchedCount] = {};
  std::thread watcher_;
};

}  // namespace tool

#endif
