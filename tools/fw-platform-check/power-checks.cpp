// SPDX-License-Identifier: Apache-2.0
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include "checks.h"
#include "device-power.h"

namespace conformance {
namespace {

constexpr int kState = 2;  // what the library holds
constexpr int kMinuteMs = 60000;

Finding notAvailable(int result) {
  return notChecked("nothing here can hold the power (" + std::to_string(result) + ")");
}

}  // namespace

Finding powerIsGivenBack() {
  const int held = device_power_lock_state(kState, kMinuteMs);
  if (held != 0) {
    return held < 0 ? notAvailable(held) : broken("a failure is " + std::to_string(held) + ", not negative");
  }
  if (device_power_unlock_state(kState) != 0) {
    return broken("what was held was not given back");
  }
  return device_power_unlock_state(kState) == -ENOENT ? kept() : broken("more was given back than was held");
}

Finding powerCountsHolds() {
  if (const int held = device_power_lock_state(kState, kMinuteMs); held != 0) {
    return notAvailable(held);
  }
  device_power_lock_state(kState, kMinuteMs);
  const bool first = device_power_unlock_state(kState) == 0;
  const bool second = device_power_unlock_state(kState) == 0;
  return first && second ? kept() : broken("two holds could not be given back one after the other");
}

Finding powerEndsByItself() {
  if (const int held = device_power_lock_state(kState, 200); held != 0) {
    return notAvailable(held);
  }
  std::this_thread::sleep_for(std::chrono::seconds(1));
  return device_power_unlock_state(kState) == -ENOENT ? kept() : broken("it was held for over a second");
}

}  // namespace conformance
