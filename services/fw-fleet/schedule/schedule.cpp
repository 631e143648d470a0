// SPDX-License-Identifier: Apache-2.0
#include "schedule.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <system_error>
#include <utility>

namespace fleet {
namespace {

using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;

// Whatever a server says.
constexpr seconds kShortestInterval{30};
constexpr seconds kLongestInterval = hours(7 * 24);
constexpr seconds kLongestRetryAfter = hours(24);

struct Growth {
  seconds from;
  seconds to;
};

// By Trouble.
constexpr Growth kGrowths[] = {{minutes(1), hours(1)}, {minutes(10), hours(6)}};

// The pause, and at most that much more of it.
Schedule::Pause stretched(seconds pause, double share, double dice) {
  const auto base = std::chrono::duration_cast<Schedule::Pause>(pause);
  return base + Schedule::Pause(static_cast<std::int64_t>(static_cast<double>(base.count()) * share * dice));
}

}  // namespace

Schedule::Schedule(seconds interval, Dice dice) : interval_(interval), dice_(std::move(dice)) {}

Schedule::Pause Schedule::first() const {
  return stretched(interval_, 1, dice_()) - Pause(interval_);
}

Schedule::Pause Schedule::afterAnswer(std::optional<seconds> sleep) {
  troubles_ = 0;
  const seconds interval = std::clamp(sleep.value_or(interval_), kShortestInterval, kLongestInterval);
  // From nine tenths to eleven tenths: on the average what the server reckons with.
  return stretched(interval, 0.2, dice_()) - Pause(interval) / 10;
}

Schedule::Pause Schedule::afterTrouble(Trouble trouble, std::optional<seconds> retryAfter) {
  const Growth& growth = kGrowths[static_cast<std::size_t>(trouble)];
  seconds pause = growth.from;
  for (int number = 0; number < troubles_ && pause < growth.to; ++number) {
    pause *= 2;
  }
  pause = std::min(pause, growth.to);
  troubles_ += pause < growth.to ? 1 : 0;
  const seconds asked = std::clamp(retryAfter.value_or(seconds(0)), seconds(0), kLongestRetryAfter);
  return stretched(std::max(pause, asked), 0.5, dice_());  // never earlier than it was asked for
}

std::optional<seconds> parseRetryAfter(const std::string& value, std::time_t now) {
  std::int64_t number = 0;
  const char* const end = value.data() + value.size();
  const auto parsed = std::from_chars(value.data(), end, number);
  if (parsed.ec == std::errc() && parsed.ptr == end && number >= 0) {
    return seconds(number);
  }
  std::tm parts = {};
  const char* const rest = strptime(value.c_str(), "%a, %d %b %Y %H:%M:%S GMT", &parts);
  if (rest == nullptr || *rest != '\0') {
    return std::nullopt;
  }
  return seconds(std::max<std::int64_t>(timegm(&parts) - std::int64_t{now}, 0));
}

}  // namespace fleet
