#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include "checks.h"
#include "device-power.h"

namespace conformance {
namespace {

constexpr int state = 2;  // what the library holds
constexpr int minuteMs = 60000;

Finding notAvailable(int result) {
  return notChecked("nothing here can hold the power (" + std::to_string(result) + ")");
}

}  // namespace

Finding powerIsGivenBack() {
  const int held = device_power_lock_state(state, minuteMs);
  if (held != 0) {
    return held < 0 ? notAvailable(held) : broken("a failure is " + std::to_string(held) + ", not negative");
  }
  if (device_power_unlock_state(state) != 0) {
    return broken("what was held was not given back");
  }
  return device_power_unlock_state(state) == -ENOENT ? kept() : broken("more was given back than was held");
}

Finding powerCountsHolds() {
  if (const int held = device_power_lock_state(state, minuteMs); held != 0) {
    return notAvailable(held);
  }
  device_power_lock_state(state, minuteMs);
  const bool first = device_power_unlock_state(state) == 0;
  const bool second = device_power_unlock_state(state) == 0;
  return first && second ? kept() : broken("two holds could not be given back one after the other");
}

Finding powerEndsByItself() {
  if (const int held = device_power_lock_state(state, 200); held != 0) {
    return notAvailable(held);
  }
  std::this_thread::sleep_for(std::chrono::seconds(1));
  return device_power_unlock_state(state) == -ENOENT ? kept() : broken("it was held for over a second");
}

}  // namespace conformance
