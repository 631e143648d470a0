// SPDX-License-Identifier: Apache-2.0
#include "configuration.h"

#include <cerrno>

#include "printable-text.h"
#include "system-error.h"
#include "whole-file.h"

namespace updated {
namespace {

constexpr std::size_t kLargestFile = std::size_t{64} * 1024;
constexpr int kMinutesOfHour = 60;
constexpr int kHoursOfDay = 24;

// Each gives what is wrong with the value, behind the name of the setting; empty when it was taken.
using Set = std::string (*)(Configuration& configuration, const std::string& value);

template <bool Configuration::*Place>
std::string setSwitch(Configuration& configuration, const std::string& value) {
  if (value != "yes" && value != "no") {
    return " must be yes or no";
  }
  configuration.*Place = value == "yes";
  return "";
}

constexpr struct {
  const char* name;
  Policy policy;
} kPolicies[] = {{"do", Policy::Do}, {"ask", Policy::Ask}, {"leave", Policy::Leave}};

template <Policy Configuration::*Place>
std::string setPolicy(Configuration& configuration, const std::string& value) {
  for (const auto& row : kPolicies) {
    if (value == row.name) {
      configuration.*Place = row.policy;
      return "";
    }
  }
  return " must be do, ask or leave";
}

bool isDigit(char byte) {
  return byte >= '0' && byte <= '9';
}

// "HH:MM"; -1 for what is none.
int minuteOf(const std::string& text) {
  if (text.size() != 5 || !isDigit(text[0]) || !isDigit(text[1]) || text[2] != ':' || !isDigit(text[3]) ||
      !isDigit(text[4])) {
    return -1;
  }
  const int hour = (text[0] - '0') * 10 + (text[1] - '0');
  const int minute = (text[3] - '0') * 10 + (text[4] - '0');
  return hour < kHoursOfDay && minute < kMinutesOfHour ? hour * kMinutesOfHour + minute : -1;
}

std::string setWindow(Configuration& configuration, const std::string& value) {
  const auto dash = value.find('-');
  const int begin = minuteOf(value.substr(0, dash));
  const int end = dash == std::string::npos ? -1 : minuteOf(value.substr(dash + 1));
  if (begin < 0 || end < 0) {
    return " must be two times of the day, such as 02:00-05:00";
  }
  if (begin == end) {
    return " must end at another time than it begins";
  }
  configuration.window = Window{begin, end};
  return "";
}

constexpr struct {
  const char* name;
  Set set;
} kSettings[] = {
    {"at-start", setSwitch<&Configuration::atStart>},
    {"before-standby", setSwitch<&Configuration::beforeStandby>},
    {"before-shutdown", setSwitch<&Configuration::beforeShutdown>},
    {"usb-drive", setSwitch<&Configuration::usbDrive>},
    {"window", setWindow},
    {"security", setPolicy<&Configuration::security>},
    {"feature", setPolicy<&Configuration::feature>},
};

std::string set(Configuration& configuration, const base::SettingLine& line) {
  for (const auto& row : kSettings) {
    if (line.name == row.name) {
      const std::string wrong = row.set(configuration, line.value);
      return wrong.empty() ? "" : row.name + wrong;
    }
  }
  return "there is no setting " + base::printableText(line.name);
}

}  // namespace

bool Window::contains(int minute) const {
  return begin < end ? minute >= begin && minute < end : minute >= begin || minute < end;
}

Policy Configuration::policyFor(std::string_view updateClass) const {
  return updateClass == "security" ? security : feature;
}

ConfigurationRead parseConfiguration(const std::string& content) {
  ConfigurationRead read;
  read.problems = base::takeSettings(
      content, [&read](const base::SettingLine& line) { return set(read.configuration, line); });
  return read;
}

ConfigurationRead readConfiguration(const std::string& path) {
  std::string content;
  const int error = base::readFile(path, kLargestFile, content);
  if (error == 0) {
    return parseConfiguration(content);
  }
  ConfigurationRead read;
  if (error != ENOENT) {
    read.problems.push_back({0, "it cannot be read: " + base::errnoText(error)});
  }
  return read;
}

}  // namespace updated
