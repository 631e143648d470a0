// SPDX-License-Identifier: Apache-2.0
// fw-trace summary
#include <unistd.h>

#include <algorithm>
#include <map>
#include <optional>

#include "../commands.h"
#include "../selection.h"
#include "../time-text.h"
#include "../timeline.h"
#include "terminal.h"
#include "text-layout.h"

namespace tracetool {
namespace {

// What a module's updates add up to.
struct Module {
  std::vector<const Update*> updates;

  // Nothing when no update came to the stage.
  std::optional<std::int64_t> timeIn(Stage stage) const {
    std::optional<std::int64_t> total;
    for (const Update* update : updates) {
      if (const auto time = update->timeIn(stage)) {
        total = total.value_or(0) + *time;
      }
    }
    return total;
  }
  std::int64_t duration() const {
    std::int64_t total = 0;
    for (const Update* update : updates) {
      total += update->span.length();
    }
    return total;
  }
  std::map<std::string, int> results() const {
    std::map<std::string, int> counts;
    for (const Update* update : updates) {
      ++counts[nameOf(update->result)];
    }
    return counts;
  }
};

double seconds(std::int64_t nanoseconds) {
  return static_cast<double>(nanoseconds) / 1e9;
}

// The check sum is calculated in the check and again before the module's turn.
std::optional<std::int64_t> crcTime(const Module& module) {
  const auto check = module.timeIn(Stage::Check);
  const auto prepare = module.timeIn(Stage::Prepare);
  if (!check && !prepare) {
    return std::nullopt;
  }
  return check.value_or(0) + prepare.value_or(0);
}

std::string orDash(std::optional<std::int64_t> time) {
  return time ? spanText(*time) : "-";
}

Json::Value orNull(std::optional<std::int64_t> time) {
  return time ? Json::Value(seconds(*time)) : Json::Value();
}

std::vector<std::string> row(const std::string& name, const Module& module) {
  std::string results;
  for (const auto& [result, count] : module.results()) {
    results += (results.empty() ? "" : ", ") + std::to_string(count) + " " + result;
  }
  return {name.empty() ? "(no name)" : name,
          std::to_string(module.updates.size()),
          spanText(module.duration()),
          orDash(module.timeIn(Stage::WaitForLock)),
          orDash(crcTime(module)),
          orDash(module.timeIn(Stage::InModule)),
          results};
}

Json::Value json(const Update& update) {
  Json::Value value;
  value["processId"] = update.file->trace.processId;
  value["firmware"] = update.firmware;
  if (update.caller) {
    value["caller"] = *update.caller;
  }
  value["begin"] = dayAndTime(update.span.begin);
  value["seconds"] = seconds(update.span.length());
  value["result"] = nameOf(update.result);
  if (!update.reason.empty()) {
    value["reason"] = update.reason;
  }
  return value;
}

Json::Value json(const std::string& name, const Module& module) {
  Json::Value value;
  value["module"] = name;
  value["attempts"] = Json::UInt64{module.updates.size()};
  value["seconds"] = seconds(module.duration());
  value["waitForLockSeconds"] = orNull(module.timeIn(Stage::WaitForLock));
  value["crcSeconds"] = orNull(crcTime(module));
  value["inModuleSeconds"] = orNull(module.timeIn(Stage::InModule));
  for (const auto& [result, count] : module.results()) {
    value["results"][result] = count;
  }
  for (const Update* update : module.updates) {
    value["updates"].append(json(*update));
  }
  return value;
}

}  // namespace

frame::Report runSummary(const Options& options) {
  Selection selection = selectTraces(options);
  frame::Report report = selection.problem;
  report.details["modules"] = Json::arrayValue;
  std::list<TraceReading> readings = readingsOf(selection.files);
  const std::vector<Update> updates = updatesOf(readings);
  std::map<std::string, Module> modules;
  for (const Update& update : updates) {
    modules[update.name()].updates.push_back(&update);
  }

  std::vector<std::vector<std::string>> rows{
      {"MODULE", "ATTEMPTS", "TIME", "LOCK", "CHECK+CRC", "MODULE'S", "RESULTS"}};
  for (const auto& [name, module] : modules) {
    rows.push_back(row(name, module));
    report.details["modules"].append(json(name, module));
  }
  addSkipped(report, readings);
  if (!modules.empty()) {
    report.body = tool::table(rows, tool::terminalWidth(STDOUT_FILENO));
  } else if (report.ending == Outcome::Ok) {
    report.message = "No module was updated.";
  }
  return report;
}

}  // namespace tracetool
