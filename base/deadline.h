// SPDX-License-Identifier: Apache-2.0
// A point in time until which something is waited for, whatever breaks in. Any thread.
#ifndef FW_BASE_DEADLINE_H
#define FW_BASE_DEADLINE_H

#include <chrono>

namespace base {

class Deadline {
 public:
  // Negative: never.
  explicit Deadline(int milliseconds);

  // As poll wants it; rounded up, so that the time is really over at 0.
  int leftMs() const;

  // Waits until there is something to read, or the other end is gone: as poll says it, 0
  // when the time is over and -1 with errno for an error.
  int waitToRead(int descriptor) const;

 private:
  using Clock = std::chrono::steady_clock;

  bool endless_;
  Clock::time_point end_;
};

}  // namespace base

#endif
