// SPDX-License-Identifier: Apache-2.0
// Files of settings: lines of "name = value", and of comments behind "#". Plain values and
// functions; any thread.
#ifndef FW_BASE_SETTING_LINES_H
#define FW_BASE_SETTING_LINES_H

#include <functional>
#include <string>
#include <vector>

namespace base {

struct SettingLine {
  int number = 0;  // of the line, from 1
  std::string name;
  std::string value;
  bool isSetting = false;  // else it has no "=", and name is the whole line
};

// Without lines that are empty or a comment.
std::vector<SettingLine> settingLines(const std::string& content);

struct SettingProblem {
  int line = 0;  // 0: the file as a whole
  std::string sentence;
};

// Gives each setting to take, which says what is wrong with it, and nothing when it was taken. A setting
// that stands there twice is wrong as well.
std::vector<SettingProblem> takeSettings(const std::string& content,
                                         const std::function<std::string(const SettingLine&)>& take);

// "FILE, line 3: ...", or "FILE: ...".
std::string textOf(const SettingProblem& problem, const std::string& path);

}  // namespace base

#endif
