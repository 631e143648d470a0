// SPDX-License-Identifier: Apache-2.0
// Notices a transfer that goes on, but so slowly that it would never end. One transfer,
// one thread; the caller says what time it is.
#ifndef TRANSFER_SPEED_WATCH_H
#define TRANSFER_SPEED_WATCH_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <utility>

namespace transfer {

class SpeedWatch {
 public:
  using Time = std::chrono::steady_clock::time_point;

  explicit SpeedWatch(std::chrono::seconds period) : period_(period) {}

  // received counts from the transfer's beginning. What a period brought, once it is
  // over. Each period stands for itself: what came in an earlier one does not excuse it.
  std::optional<std::int64_t> periodOver(std::int64_t received, Time now) {
    if (!begin_) {
      begin_ = now;
    }
    if (now - *begin_ < period_) {
      return std::nullopt;
    }
    begin_ = now;
    return received - std::exchange(before_, received);
  }

 private:
  const std::chrono::seconds period_;
  std::optional<Time> begin_;
  std::int64_t before_ = 0;  // received, when the period began
};

}  // namespace transfer

#endif
