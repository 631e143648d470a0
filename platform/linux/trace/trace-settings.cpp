// SPDX-License-Identifier: Apache-2.0
#include "trace/trace-settings.h"

#include <charconv>
#include <cstdlib>
#include <string_view>

namespace fwplatform::trace {
namespace {

struct NumberSetting {
  const char* variable;
  std::uint32_t Settings::*field;
  std::uint32_t lowest;
  std::uint32_t highest;
};

constexpr NumberSetting kNumbers[] = {
    {"FW_UPDATE_TRACE_THREAD_KIB", &Settings::threadKib, 64, 16 * 1024},
    {"FW_UPDATE_TRACE_THREADS", &Settings::threads, 1, 1024},
    {"FW_UPDATE_TRACE_TOTAL_MIB", &Settings::totalMib, 1, 64 * 1024},
    {"FW_UPDATE_TRACE_DAYS", &Settings::days, 1, 3650},
};

std::string_view environment(const char* name) {
  const char* value = secure_getenv(name);
  return value == nullptr ? std::string_view() : value;
}

void readNumber(const NumberSetting& setting, Settings& settings) {
  const std::string_view text = environment(setting.variable);
  std::uint32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error == std::errc() && end == text.data() + text.size() && value >= setting.lowest &&
      value <= setting.highest) {
    settings.*setting.field = value;
  }
}

}  // namespace

Settings settingsFromEnvironment() {
  Settings settings;
  if (const std::string_view directory = environment("FW_UPDATE_TRACE"); !directory.empty()) {
    settings.directory = directory == "none" ? std::string_view() : directory;
  }
  for (const NumberSetting& setting : kNumbers) {
    readNumber(setting, settings);
  }
  return settings;
}

}  // namespace fwplatform::trace
