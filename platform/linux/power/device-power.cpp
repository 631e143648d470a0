// SPDX-License-Identifier: Apache-2.0
#include "device-power.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "dlog.h"
#include "file-descriptor.h"
#include "power/logind-inhibitor.h"
#include "power/wake-lock.h"
#include "signal-guards.h"
#include "system-error.h"

namespace {

using Clock = std::chrono::steady_clock;
using base::errnoText;
using base::FileDescriptor;
using fwplatform::WakeLock;

// One lock of a state. Destroying it gives the power back.
struct Hold {
  int state = 0;
  Clock::time_point end;
  FileDescriptor inhibitor;
  WakeLock wakeLock;
};

bool endsEarlier(const Hold& one, const Hold& other) {
  return one.end < other.end;
}

// What this process holds, and the thread that gives it back when its time is
// over. The thread lives only while something is held.
class Holds {
 public:
  // Never destroyed: the thread may outlive the program's last static object.
  static Holds& instance() {
    static auto& instance = *new Holds;
    return instance;
  }

  void add(Hold hold);
  // Of several holds of one state, the one that would end first.
  bool remove(int state);

 private:
  void startWatching();
  void watch();

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Hold> holds_;
  bool watched_ = false;
};

void Holds::add(Hold hold) {
  const std::lock_guard<std::mutex> lock(mutex_);
  holds_.push_back(std::move(hold));
  try {
    startWatching();
  } catch (...) {
    // A hold that nobody ends could last too long.
    holds_.pop_back();
    throw;
  }
  changed_.notify_one();
}

void Holds::startWatching() {
  if (watched_) {
    return;
  }
  const base::SignalsLater later;  // they are for the program's own threads
  std::thread([this] { watch(); }).detach();
  watched_ = true;
}

bool Holds::remove(int state) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto others =
      std::partition(holds_.begin(), holds_.end(), [state](const Hold& hold) { return hold.state == state; });
  const auto found = std::min_element(holds_.begin(), others, endsEarlier);
  if (found == others) {
    return false;
  }
  holds_.erase(found);
  changed_.notify_one();
  return true;
}

void Holds::watch() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!holds_.empty()) {
    const auto first = std::min_element(holds_.begin(), holds_.end(), endsEarlier);
    const Clock::time_point end = first->end;  // holds move in memory during the wait
    if (end > Clock::now()) {
      changed_.wait_until(lock, end);
      continue;
    }
    __dlog_print(2, DLOG_WARN_PRIORITY, "FWUPDATE",
                 "device power: the hold time of state %d is over; the power is released", first->state);
    holds_.erase(first);
  }
  watched_ = false;
}

std::string uniqueName() {
  static std::atomic<unsigned int> count{0};
  return "fw-update-control-" + std::to_string(getpid()) + "-" + std::to_string(++count);
}

// Whether logind is missing, rather than unwilling.
bool isMissing(int status) {
  return status == -ENOENT || status == -ECONNREFUSED || status == -EHOSTUNREACH || status == -ENXIO;
}

int takeHold(Hold& hold, int timeoutMs) {
  const std::string why = "firmware is being updated (power state " + std::to_string(hold.state) + ")";
  const int logind = fwplatform::takeLogindInhibitor(why, hold.inhibitor);
  if (logind == 0) {
    return 0;
  }
  const int kernel = hold.wakeLock.take(uniqueName(), timeoutMs);
  if (kernel == 0) {
    return 0;
  }
  __dlog_print(2, DLOG_WARN_PRIORITY, "FWUPDATE",
               "device power: state %d is not held (logind: %s; kernel wake lock: %s)", hold.state,
               errnoText(-logind).c_str(), errnoText(-kernel).c_str());
  return isMissing(logind) ? -ENOSYS : logind;
}

// A sum of times that ran over an int arrives as 0 or less. Holding too long is
// better than losing power in the middle, and the unlock call ends it.
int usableTime(int timeoutMs) {
  if (timeoutMs > 0) {
    return timeoutMs;
  }
  __dlog_print(2, DLOG_WARN_PRIORITY, "FWUPDATE",
               "device power: a hold time of %d ms cannot be right; held until it is unlocked", timeoutMs);
  return INT_MAX;
}

int lock(int state, int timeoutMs) {
  const int usable = usableTime(timeoutMs);
  Hold hold;
  hold.state = state;
  // From the request on: an answer that comes late makes the hold no longer.
  hold.end = Clock::now() + std::chrono::milliseconds(usable);
  const int status = takeHold(hold, usable);
  if (status == 0) {
    Holds::instance().add(std::move(hold));
  }
  return status;
}

}  // namespace

int device_power_lock_state(int state, int timeout_ms) {
  try {
    return lock(state, timeout_ms);
  } catch (const std::system_error&) {
    return -EAGAIN;
  } catch (const std::exception&) {
    return -ENOMEM;
  }
}

int device_power_unlock_state(int state) {
  try {
    return Holds::instance().remove(state) ? 0 : -ENOENT;
  } catch (const std::exception&) {
    return -ENOMEM;
  }
}
