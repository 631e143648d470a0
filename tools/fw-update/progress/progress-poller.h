// SPDX-License-Identifier: Apache-2.0
// Asks a module for its progress again and again on a thread of its own, so that
// a module that never answers holds up nobody. The thread is detached; what it
// writes to is shared and outlives the poller.
#ifndef FW_UPDATE_TOOL_PROGRESS_POLLER_H
#define FW_UPDATE_TOOL_PROGRESS_POLLER_H

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace tool {

class ProgressPoller {
 public:
  explicit ProgressPoller(const std::string& module);
  ProgressPoller(const ProgressPoller&) = delete;
  ProgressPoller& operator=(const ProgressPoller&) = delete;

  // The module's last answer; empty when it has given none, and as long as it only says
  // that the update before this one was completed.
  std::optional<unsigned int> percent() const;

  // Ends the polling. False when the module does not answer: then the thread
  // stays inside it.
  bool stop();

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::optional<unsigned int> percent;
    bool begun = false;
    bool stopping = false;
    bool ended = false;
  };
  static void poll(const std::shared_ptr<State>& state, const std::string& module);

  std::shared_ptr<State> state_;
};

}  // namespace tool

#endif
