// SPDX-License-Identifier: Apache-2.0
// What a check of a module found: plain values, and how they are put out.
#ifndef FW_MODULE_CHECK_REPORT_H
#define FW_MODULE_CHECK_REPORT_H

#include <json/value.h>

#include <string>
#include <vector>

#include "frame/report.h"
#include "outcome.h"
#include "subject.h"
#include "trial-run.h"

namespace fwmodule {

struct CheckResult {
  enum class State { Passed, Failed, NotChecked };
  State state = State::NotChecked;
  std::string reason;             // why it was not checked
  std::vector<Finding> findings;  // one an entry point
};

struct Report {
  Subject subject;
  CheckResult results[kCheckCount];

  std::size_t count(CheckResult::State state) const;
  std::size_t count(Severity severity) const;  // of failed checks
  Outcome outcome() const;
};

// "passed", "error", "warning" or "not-checked".
const char* resultName(const CheckInfo& check, const CheckResult& result);

// For people: a table of the checks, then each finding with what to do about it. In colour
// on a terminal.
std::string reportText(const Report& report, std::size_t width);
Json::Value reportJson(const Report& report);
std::string reportJunit(const Report& report);

// The table of checks alone.
std::string listText(std::size_t width);
Json::Value listJson();

// What the command answers.
frame::Report answerWith(const Report& report, std::size_t width);
frame::Report answerWithList(std::size_t width);

}  // namespace fwmodule

#endif
