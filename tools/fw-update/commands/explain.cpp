// SPDX-License-Identifier: Apache-2.0
// fw-update explain
#include <unistd.h>

#include <algorithm>

#include "commands.h"
#include "explain/explanations.h"
#include "report.h"
#include "terminal.h"

namespace tool {
namespace {

constexpr std::size_t kWidest = 80;

std::string joined(const std::vector<std::string>& words) {
  std::string line;
  for (const std::string& word : words) {
    line += (line.empty() ? "" : " ") + word;
  }
  return line;
}

std::string textOf(const Explanation& explanation) {
  const std::size_t width = std::min(terminalWidth(STDOUT_FILENO), kWidest);
  std::string text = wrapped("What it means: " + explanation.means, width, 2) + "\n";
  if (!explanation.remedy.empty()) {
    text += wrapped("What to do: " + explanation.remedy, width, 2) + "\n";
  }
  return text + wrapped("More: " + explanation.page, width, 2) + "\n";
}

frame::Report reportOf(const Explanation& explanation) {
  frame::Report report{Outcome::Ok};
  report.body = textOf(explanation);
  report.details["pattern"] = explanation.pattern;
  report.details["means"] = explanation.means;
  report.details["whatToDo"] = explanation.remedy;
  report.details["page"] = explanation.page;
  return report;
}

constexpr const char* kNotKnown = "Give one whole line, in quotes, as the log or a command printed it.";

}  // namespace

frame::Report runExplain(const Options& options) {
  const std::string line = joined(options.words);
  const auto explanation = explain(line);
  frame::Report report = explanation ? reportOf(*explanation)
                                     : reportOf({Outcome::NotKnown, "No table has this line.", kNotKnown});
  report.details["line"] = line;
  return report;
}

}  // namespace tool
