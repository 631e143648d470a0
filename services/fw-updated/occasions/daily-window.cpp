// SPDX-License-Identifier: Apache-2.0
#include "daily-window.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <cstdint>
#include <utility>

#include "system-error.h"

namespace updated {
namespace {

constexpr int kMinutesOfHour = 60;

// That minute of the day that is so many days after now's.
std::time_t timeAt(std::time_t now, int days, int minute) {
  std::tm day = {};
  localtime_r(&now, &day);
  day.tm_mday += days;
  day.tm_hour = minute / kMinutesOfHour;
  day.tm_min = minute % kMinutesOfHour;
  day.tm_sec = 0;
  day.tm_isdst = -1;  // as it is at that time
  return std::mktime(&day);
}

int minuteOf(std::time_t now) {
  std::tm day = {};
  localtime_r(&now, &day);
  return day.tm_hour * kMinutesOfHour + day.tm_min;
}

std::time_t nextAt(std::time_t now, int minute) {
  const std::time_t today = timeAt(now, 0, minute);
  return today > now ? today : timeAt(now, 1, minute);
}

}  // namespace

std::time_t nextBegin(const Window& window, std::time_t now) {
  return nextAt(now, window.begin);
}

std::time_t endOf(const Window& window, std::time_t now) {
  return window.contains(minuteOf(now)) ? nextAt(now, window.end) : 0;
}

DailyWindow::DailyWindow(EventLoop& loop, const Window& window, EventLoop::Step begins, Clock clock)
    : window_(window),
      begins_(std::move(begins)),
      clock_(std::move(clock)),
      timer_(timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK)) {
  if (!timer_) {
    base::throwErrno("timerfd_create");
  }
  source_ = loop.whenReadable(timer_.get(), [this] {
    std::uint64_t count = 0;
    // Also when it was cancelled because the clock was set.
    (void)!read(timer_.get(), &count, sizeof count);
    look();
  });
  look();
}

void DailyWindow::look() {
  tzset();
  const std::time_t now = clock_();
  itimerspec when = {};
  when.it_value.tv_sec = nextBegin(window_, now);
  if (timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &when, nullptr) != 0) {
    base::throwErrno("timerfd_settime");
  }
  const std::time_t end = endOf(window_, now);
  if (end != 0 && end != std::exchange(told_, end)) {
    begins_();
  }
}

}  // namespace updated
