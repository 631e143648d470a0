// SPDX-License-Identifier: Apache-2.0
#include "report.h"

#include <algorithm>
#include <iterator>

namespace fwmodule {
namespace {

const char* name(Severity severity) {
  return severity == Severity::Error ? "error" : "warning";
}

Json::Value describe(const CheckInfo& check) {
  Json::Value described;
  described["id"] = check.id;
  described["severity"] = name(check.severity);
  described["title"] = check.title;
  return described;
}

Json::Value describe(const Finding& finding) {
  const CheckInfo& check = infoOf(finding.check);
  Json::Value described;
  described["check"] = check.id;
  described["severity"] = name(check.severity);
  described["entryPoint"] = infoOf(finding.entryPoint).name;
  described["message"] = finding.message;
  described["advice"] = check.advice;
  return described;
}

Json::Value describe(const Subject& subject) {
  Json::Value module;
  module["file"] = subject.path;
  module["library"] = subject.library;
  module["kind"] = subject.extension ? "EXT" : "ordinary";
  module["firmware"] = subject.firmware;
  module["version"] = subject.activeVersion;
  return module;
}

}  // namespace

std::size_t Report::count(CheckResult::State state) const {
  const auto number = std::count_if(std::begin(results), std::end(results),
                                    [state](const CheckResult& result) { return result.state == state; });
  return static_cast<std::size_t>(number);
}

std::size_t Report::count(Severity severity) const {
  std::size_t number = 0;
  for (const CheckInfo& check : kChecks) {
    if (check.severity == severity &&
        results[static_cast<std::size_t>(check.check)].state == CheckResult::State::Failed) {
      ++number;
    }
  }
  return number;
}

Outcome Report::outcome() const {
  if (count(Severity::Error) > 0) {
    return Outcome::ErrorsFound;
  }
  return count(Severity::Warning) > 0 ? Outcome::WarningsFound : Outcome::Ok;
}

const char* resultName(const CheckInfo& check, const CheckResult& result) {
  switch (result.state) {
    case CheckResult::State::Passed:
      return "passed";
    case CheckResult::State::Failed:
      return name(check.severity);
    case CheckResult::State::NotChecked:
      break;
  }
  return "not-checked";
}

Json::Value reportJson(const Report& report) {
  Json::Value document;
  document["module"] = describe(report.subject);
  document["checks"] = Json::arrayValue;
  document["findings"] = Json::arrayValue;
  for (const CheckInfo& check : kChecks) {
    const CheckResult& result = report.results[static_cast<std::size_t>(check.check)];
    Json::Value described = describe(check);
    described["result"] = resultName(check, result);
    if (!result.reason.empty()) {
      described["reason"] = result.reason;
    }
    document["checks"].append(described);
    for (const Finding& finding : result.findings) {
      document["findings"].append(describe(finding));
    }
  }
  return document;
}

Json::Value listJson() {
  Json::Value document;
  document["checks"] = Json::arrayValue;
  for (const CheckInfo& check : kChecks) {
    Json::Value described = describe(check);
    described["advice"] = check.advice;
    document["checks"].append(described);
  }
  return document;
}

frame::Report answerWith(const Report& report, std::size_t width) {
  frame::Report answer(report.outcome());
  answer.body = reportText(report, width);
  answer.details = reportJson(report);
  return answer;
}

frame::Report answerWithList(std::size_t width) {
  frame::Report answer(Outcome::Ok);
  answer.body = listText(width);
  answer.details = listJson();
  return answer;
}

}  // namespace fwmodule
