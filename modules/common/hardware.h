// SPDX-License-Identifier: Apache-2.0
// The hardware behind a flash file: how fast it writes and where it breaks, as
// the component's description file states it (docs/formats/component-flash.md).
// Without that file it writes as fast as the disk and never breaks.
// A Hardware belongs to one update; readHardwareDescription is safe anywhere.
#ifndef MODULES_COMMON_HARDWARE_H
#define MODULES_COMMON_HARDWARE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace fwcomponent {

struct HardwareDescription {
  std::optional<unsigned int> writeKibPerSecond;  // absent or 0: as fast as possible
  std::optional<unsigned int> failAtPercent;
  std::optional<unsigned int> stallAtPercent;
  std::optional<unsigned int> expectedTime;  // seconds
};

// Throws std::system_error: EINVAL for an unknown key or a bad value, naming it.
HardwareDescription readHardwareDescription(const std::string& firmwareName);

class Hardware {
 public:
  explicit Hardware(const HardwareDescription& description) : description_(description) {}

  // Returns when the hardware has taken these bytes.
  void takeBytes(std::size_t length);

  // Throws std::system_error with EIO, or never returns, where the hardware breaks.
  void reachPercent(unsigned int percent) const;

 private:
  const HardwareDescription description_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::uint64_t taken_ = 0;
};

}  // namespace fwcomponent

#endif
