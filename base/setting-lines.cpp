// SPDX-License-Identifier: Apache-2.0
#include "setting-lines.h"

#include <sstream>

namespace base {
namespace {

std::string trimmed(const std::string& text) {
  constexpr char kBlanks[] = " \t\r";
  const auto first = text.find_first_not_of(kBlanks);
  return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

}  // namespace

std::vector<SettingLine> settingLines(const std::string& content) {
  std::vector<SettingLine> settings;
  std::istringstream lines(content);
  int number = 0;
  for (std::string line; std::getline(lines, line);) {
    ++number;
    const std::string text = trimmed(line.substr(0, line.find('#')));
    if (text.empty()) {
      continue;
    }
    const auto equals = text.find('=');
    const bool isSetting = equals != std::string::npos;
    settings.push_back({number, trimmed(text.substr(0, equals)),
                        isSetting ? trimmed(text.substr(equals + 1)) : "", isSetting});
  }
  return settings;
}

}  // namespace base
