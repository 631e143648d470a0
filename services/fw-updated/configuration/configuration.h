// SPDX-License-Identifier: Apache-2.0
// When the service acts by itself, and what it may do then: /etc/fw-update/fw-updated.conf. Plain
// values and functions; any thread.
#ifndef FW_UPDATED_CONFIGURATION_H
#define FW_UPDATED_CONFIGURATION_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "setting-lines.h"

namespace updated {

inline constexpr char kConfigurationFile[] = "/etc/fw-update/fw-updated.conf";

// What happens to an update that is needed.
enum class Policy : std::uint8_t {
  Leave,  // it is announced, and that is all
  Ask,    // its job waits for consent
  Do,
};

// Times of the day, in minutes since midnight. End may be before begin: over midnight then.
struct Window {
  int begin = 0;
  int end = 0;

  bool contains(int minute) const;
};

struct Configuration {
  bool atStart = true;
  bool beforeStandby = false;
  bool beforeShutdown = false;
  bool usbDrive = false;
  std::optional<Window> window;
  Policy security = Policy::Leave;
  Policy feature = Policy::Leave;

  // Of an update of this class; one that is not known is a feature.
  Policy policyFor(std::string_view updateClass) const;
};

using ConfigurationProblem = base::SettingProblem;

struct ConfigurationRead {
  Configuration configuration;  // lines that are wrong count for nothing
  std::vector<ConfigurationProblem> problems;
};

ConfigurationRead parseConfiguration(const std::string& content);

// The defaults when there is no such file.
ConfigurationRead readConfiguration(const std::string& path = kConfigurationFile);

using base::textOf;

}  // namespace updated

#endif
