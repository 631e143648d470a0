// SPDX-License-Identifier: Apache-2.0
#include <algorithm>

#include "report.h"

namespace fwmodule {
namespace {

using State = CheckResult::State;

// For text and attributes. XML 1.0 has no place for most control characters, and bytes
// that are no ASCII may be no UTF-8.
std::string escaped(const std::string& text) {
  std::string result;
  for (const char c : text) {
    if (c == '&') {
      result += "&amp;";
    } else if (c == '<') {
      result += "&lt;";
    } else if (c == '>') {
      result += "&gt;";
    } else if (c == '"') {
      result += "&quot;";
    } else {
      result += c >= ' ' && c <= '~' ? c : '?';
    }
  }
  return result;
}

std::string attribute(const char* name, const std::string& value) {
  return std::string(" ") + name + "=\"" + escaped(value) + "\"";
}

std::string failure(const CheckInfo& check, const CheckResult& result) {
  std::string messages;
  for (const Finding& finding : result.findings) {
    messages += (messages.empty() ? "" : " ") + finding.message;
  }
  return "<failure" + attribute("type", resultName(check, result)) + attribute("message", messages) + ">" +
         escaped(check.advice) + "</failure>";
}

std::string testCase(const Report& report, const CheckInfo& check) {
  const CheckResult& result = report.results[static_cast<std::size_t>(check.check)];
  std::string inner;
  if (result.state == State::Failed) {
    inner = failure(check, result);
  }
  if (result.state == State::NotChecked) {
    inner = "<skipped" + attribute("message", result.reason) + "/>";
  }
  return "  <testcase" + attribute("classname", "fw-module." + report.subject.library) +
         attribute("name", check.id) + ">" + inner + "</testcase>\n";
}

}  // namespace

std::string reportJunit(const Report& report) {
  const std::size_t failures = report.count(State::Failed);
  const std::size_t skipped = report.count(State::NotChecked);
  std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuite" +
                     attribute("name", "fw-module check " + report.subject.library) +
                     attribute("tests", std::to_string(kCheckCount)) +
                     attribute("failures", std::to_string(failures)) +
                     attribute("skipped", std::to_string(skipped)) + ">\n";
  for (const CheckInfo& check : kChecks) {
    text += testCase(report, check);
  }
  return text + "</testsuite>\n";
}

}  // namespace fwmodule
