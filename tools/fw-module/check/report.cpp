#include "report.h"

#include <json/value.h>

#include <algorithm>
#include <iterator>

#include "text-layout.h"

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

std::string reportJson(const Report& report) {
  Json::Value document;
  document["command"] = "check";
  document["ok"] = report.outcome() == Outcome::Ok;
  document["outcome"] = infoOf(report.outcome()).id;
  document["exitCode"] = infoOf(report.outcome()).exitCode;
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
  return tool::indented(document);
}

std::string listJson() {
  Json::Value document;
  document["command"] = "check";
  document["checks"] = Json::arrayValue;
  for (const CheckInfo& check : kChecks) {
    Json::Value described = describe(check);
    described["advice"] = check.advice;
    document["checks"].append(described);
  }
  return tool::indented(document);
}

}  // namespace fwmodule
