// SPDX-License-Identifier: Apache-2.0
// Files of settings: lines of "name = value", and of comments behind "#". Plain values and
// functions; any thread.
#ifndef FW_BASE_SETTING_LINES_H
#define FW_BASE_SETTING_LINES_H

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

}  // namespace base

#endif
