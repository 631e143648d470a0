// SPDX-License-Identifier: Apache-2.0
// What a line of the log or of a command means and what to do about it: looked up in the
// tables that the commands and the pages are made of. Pure; any thread.
#ifndef FW_UPDATE_TOOL_EXPLANATIONS_H
#define FW_UPDATE_TOOL_EXPLANATIONS_H

#include <optional>
#include <string>
#include <vector>

namespace tool {

struct Explanation {
  std::string pattern;  // the line as it is known; … stands for names and numbers
  std::string means;
  std::string remedy;  // may be empty
  std::string page;    // where more of its kind is
};

// The explanation that has most of the line's words. Whatever stands before and behind it,
// the time, the program and the place in the sources, is passed over.
std::optional<Explanation> explain(const std::string& line);

// All lines that are known.
std::vector<Explanation> allExplanations();

}  // namespace tool

#endif
