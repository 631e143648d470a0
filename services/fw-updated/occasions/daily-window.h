// SPDX-License-Identifier: Apache-2.0
// A window of the day, in the set's local time: told when it begins, also when the clock is set
// into it. Between that nothing wakes up. One thread.
#ifndef FW_UPDATED_DAILY_WINDOW_H
#define FW_UPDATED_DAILY_WINDOW_H

#include <ctime>
#include <functional>

#include "configuration.h"
#include "event-loop.h"
#include "file-descriptor.h"

namespace updated {

// When the window begins next, after now; seconds since 1970.
std::time_t nextBegin(const Window& window, std::time_t now);

// When the window ends that now is in; 0: it is in none.
std::time_t endOf(const Window& window, std::time_t now);

class DailyWindow {
 public:
  using Clock = std::function<std::time_t()>;

  // Throws std::system_error. begins: once in each window.
  DailyWindow(EventLoop& loop, const Window& window, EventLoop::Step begins, Clock clock);

 private:
  void look();

  const Window window_;
  const EventLoop::Step begins_;
  const Clock clock_;
  std::time_t told_ = 0;  // the end of the window that was told last
  base::FileDescriptor timer_;
  Source source_;
};

}  // namespace updated

#endif
