// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "report.h"
#include "terminal.h"
#include "text-layout.h"

namespace fwmodule {
namespace {

using State = CheckResult::State;

constexpr std::size_t kResultWidth = 13;  // "not checked" and two blanks

constexpr std::size_t widestId() {
  std::size_t widest = 0;
  for (const CheckInfo& check : kChecks) {
    widest = std::max(widest, std::char_traits<char>::length(check.id));
  }
  return widest;
}

std::string padded(const std::string& text, std::size_t width) {
  return text + std::string(text.size() < width ? width - text.size() : 0, ' ');
}

std::string cell(const CheckInfo& check, const CheckResult& result) {
  switch (result.state) {
    case State::Passed:
      return padded("ok", kResultWidth);
    case State::NotChecked:
      return padded("not checked", kResultWidth);
    case State::Failed:
      break;
  }
  const bool error = check.severity == Severity::Error;
  const std::string text = error ? "error" : "warning";
  return tool::coloured(text, error ? tool::Colour::Red : tool::Colour::Yellow, STDOUT_FILENO) +
         std::string(kResultWidth - text.size(), ' ');
}

std::string line(const CheckInfo& check, const CheckResult& result, std::size_t width) {
  constexpr std::size_t kIndent = kResultWidth + widestId() + 2;
  std::string title = check.title;
  if (!result.reason.empty()) {
    title += ": " + result.reason;
  }
  return cell(check, result) + padded(check.id, widestId() + 2) + tool::wrapped(title, width, kIndent) + "\n";
}

std::string paragraph(const Finding& finding, std::size_t width) {
  constexpr std::size_t kIndent = 2;
  const CheckInfo& check = infoOf(finding.check);
  const bool error = check.severity == Severity::Error;
  const std::string blanks(kIndent, ' ');
  return "\n" +
         tool::coloured(error ? "error" : "warning", error ? tool::Colour::Red : tool::Colour::Yellow,
                        STDOUT_FILENO) +
         " " + check.id + "\n" + blanks + tool::wrapped(finding.message, width, kIndent) + "\n" + blanks +
         tool::wrapped(std::string("What to do: ") + check.advice, width, kIndent) + "\n";
}

std::string heading(const Subject& subject, std::size_t width) {
  std::string text = subject.library + ": ";
  text += subject.extension ? "an EXT- module" : "a module";
  if (!subject.extension && !subject.firmware.empty()) {
    text += " for the firmware " + subject.firmware;
  }
  if (!subject.activeVersion.empty()) {
    text += ", version " + subject.activeVersion + " on a new device";
  }
  return tool::wrapped(text, width) + "\n";
}

std::string number(std::size_t count, const char* what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string summary(const Report& report, std::size_t width) {
  const std::string counts = std::to_string(kCheckCount) +
                             " checks: " + std::to_string(report.count(State::Passed)) + " passed, " +
                             number(report.count(Severity::Error), "error") + ", " +
                             number(report.count(Severity::Warning), "warning") + ", " +
                             std::to_string(report.count(State::NotChecked)) + " not checked";
  const bool ok = report.outcome() == Outcome::Ok;
  return "\n" +
         tool::coloured(tool::wrapped(counts, width), ok ? tool::Colour::Green : tool::Colour::Bold,
                        STDOUT_FILENO) +
         "\n";
}

}  // namespace

std::string reportText(const Report& report, std::size_t width) {
  std::string text = heading(report.subject, width);
  std::string findings;
  for (const CheckInfo& check : kChecks) {
    const CheckResult& result = report.results[static_cast<std::size_t>(check.check)];
    text += line(check, result, width);
    for (const Finding& finding : result.findings) {
      findings += paragraph(finding, width);
    }
  }
  return text + findings + summary(report, width);
}

std::string listText(std::size_t width) {
  std::vector<std::vector<std::string>> rows = {{"CHECK", "IF NOT", "WHAT MUST BE"}};
  for (const CheckInfo& check : kChecks) {
    rows.push_back({check.id, check.severity == Severity::Error ? "error" : "warning", check.title});
  }
  return tool::table(rows, width);
}

}  // namespace fwmodule
