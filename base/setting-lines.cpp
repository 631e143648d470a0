// SPDX-License-Identifier: Apache-2.0
#include "setting-lines.h"

#include <map>
#include <sstream>

#include "printable-text.h"

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

std::vector<SettingProblem> takeSettings(const std::string& content,
                                         const std::function<std::string(const SettingLine&)>& take) {
  std::vector<SettingProblem> problems;
  std::map<std::string, int> lines;
  for (const SettingLine& line : settingLines(content)) {
    std::string wrong;
    if (!line.isSetting) {
      wrong = "it has no \"=\"";
    } else if (line.name.empty()) {
      wrong = "it has no name before its \"=\"";
    } else if (const auto [first, isNew] = lines.emplace(line.name, line.number); !isNew) {
      wrong = printableText(line.name) + " stands in line " + std::to_string(first->second) + " already";
    } else {
      wrong = take(line);
    }
    if (!wrong.empty()) {
      problems.push_back({line.number, wrong});
    }
  }
  return problems;
}

std::string textOf(const SettingProblem& problem, const std::string& path) {
  const std::string line = problem.line == 0 ? "" : ", line " + std::to_string(problem.line);
  return printableText(path) + line + ": " + problem.sentence + ".";
}

}  // namespace base
