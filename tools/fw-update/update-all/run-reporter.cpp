// SPDX-License-Identifier: Apache-2.0
#include "update-all/run-reporter.h"

#include <unistd.h>

#include <cmath>
#include <iostream>

#include "frame/report.h"
#include "live-line.h"
#include "progress/milestones.h"
#include "progress/telling.h"
#include "report.h"
#include "terminal.h"
#include "text-layout.h"

namespace tool {
namespace {

std::string wholeSeconds(double seconds) {
  return std::to_string(static_cast<long long>(std::ceil(seconds))) + " s";
}

std::string goesOnText(const RunProgress& progress) {
  return std::to_string(progress.modulesLeft) + (progress.modulesLeft == 1 ? " module is" : " modules are") +
         " left, about " + wholeSeconds(progress.secondsLeft) +
         "; going on, since a module must not be cut short. Ctrl-C once more ends the run at once.";
}

class TextReporter : public RunReporter {
 public:
  void start(const UpdatePlan& plan) override { std::cout << describePlan(plan) << std::flush; }
  void moduleEnded(std::size_t number, const PlannedModule&, const Finding& finding) override {
    clear();
    const bool updated = finding.outcome == Outcome::Updated;
    const std::string text = std::to_string(number) + ": " + finding.message;
    const std::string lines = wrapped(text, terminalWidth(STDOUT_FILENO));
    std::cout << coloured(lines, updated ? Colour::Green : Colour::Red, STDOUT_FILENO) << std::endl;
  }
  void goesOn(const RunProgress& progress) override {
    clear();
    std::cerr << wrapped("fw-update: " + goesOnText(progress), terminalWidth(STDERR_FILENO)) << std::endl;
  }

 protected:
  virtual void clear() {}
};

// Draws the line again and again on its place.
class LiveReporter : public TextReporter {
 public:
  void tick(const RunProgress& progress) override {
    if (progress.number == 0) {
      return;
    }
    line_.show(liveLine(progress, line_.width()),
               progress.module.overdue() ? std::optional<Colour>(Colour::Yellow) : std::nullopt);
  }
  void finish() override { clear(); }

 protected:
  void clear() override { line_.clear(); }

 private:
  LiveLine line_{STDOUT_FILENO};
};

class PlainReporter : public TextReporter {
 public:
  void tick(const RunProgress& progress) override {
    if (progress.number != number_) {
      number_ = progress.number;
      milestones_ = Milestones();
    }
    if (number_ > 0 && milestones_.reached(progress.module)) {
      std::cout << plainLine(progress) << std::endl;
    }
  }

 private:
  std::size_t number_ = 0;
  Milestones milestones_;
};

class NdjsonReporter : public RunReporter {
 public:
  void start(const UpdatePlan& plan) override {
    Json::Value event;
    event["event"] = "start";
    event["modules"] = Json::arrayValue;
    for (const PlannedModule& module : plan.modules) {
      event["modules"].append(planJson(module));
    }
    event["expectedSeconds"] = plan.expectedSeconds();
    event["powerHoldMs"] = plan.powerHoldMs();
    frame::putEvent(event);
  }
  void tick(const RunProgress& progress) override {
    if (progress.number == 0) {
      return;
    }
    if (progress.number != number_) {
      number_ = progress.number;
      updating_ = false;
      frame::putEvent(moment(progress, "module-start"));
    }
    if (progress.module.phase == Phase::Updating && (!updating_ || progress.module.percent != percent_)) {
      updating_ = true;
      percent_ = progress.module.percent;
      frame::putEvent(moment(progress, "progress"));
    }
  }
  void moduleEnded(std::size_t ended, const PlannedModule& module, const Finding& finding) override {
    Json::Value event;
    event["event"] = "module-end";
    event["module"] = module.library;
    event["number"] = static_cast<Json::UInt64>(ended);
    event["outcome"] = infoOf(finding.outcome).id;
    event["message"] = finding.message;
    frame::putEvent(event);
  }
  void goesOn(const RunProgress& progress) override { frame::putEvent(moment(progress, "goes-on")); }

 private:
  static Json::Value moment(const RunProgress& progress, const char* name) {
    Json::Value event;
    event["event"] = name;
    event["module"] = progress.module.module;
    event["number"] = static_cast<Json::UInt64>(progress.number);
    event["count"] = static_cast<Json::UInt64>(progress.count);
    event["elapsedSeconds"] = rounded(progress.module.elapsed);
    if (progress.module.percent) {
      event["percent"] = *progress.module.percent;
    }
    if (progress.module.limit) {
      event["expectedSeconds"] = progress.module.limit->expected;
      event["givesUpAtSeconds"] = progress.module.limit->givesUp;
    }
    event["totalPercent"] = progress.totalPercent;
    event["secondsLeft"] = rounded(progress.secondsLeft);
    event["modulesLeft"] = static_cast<Json::UInt64>(progress.modulesLeft);
    return event;
  }

  std::size_t number_ = 0;
  bool updating_ = false;
  std::optional<unsigned int> percent_;
};

// The document comes at the end; only the Ctrl-C is answered at once.
class DocumentReporter : public RunReporter {
 public:
  void goesOn(const RunProgress& progress) override {
    std::cerr << "fw-update: " << goesOnText(progress) << std::endl;
  }
};

}  // namespace

std::unique_ptr<RunReporter> makeRunReporter(const Options& options) {
  return makeReporter<RunReporter, NdjsonReporter, DocumentReporter, LiveReporter, PlainReporter>(options);
}

std::string describePlan(const UpdatePlan& plan) {
  std::vector<std::vector<std::string>> rows{{"LIBRARY", "FIRMWARE", "VERSION", "EXPECTED", "UPDATE"}};
  for (const PlannedModule& module : plan.modules) {
    rows.push_back({module.library, module.firmware, module.version,
                    module.due ? std::to_string(module.expectedSeconds) + " s" : "-",
                    module.due ? "yes" : "no: " + module.reason.message});
  }
  std::string text = plan.modules.empty() ? "" : table(rows, terminalWidth(STDOUT_FILENO));
  if (const std::size_t count = plan.due().size(); count > 0) {
    text += std::to_string(count) + (count == 1 ? " module" : " modules") + ", about " +
            wholeSeconds(plan.expectedSeconds()) + "; power is held " + powerHoldText(plan) + ".\n";
  }
  return text;
}

Json::Value planJson(const PlannedModule& module) {
  Json::Value value;
  value["library"] = module.library;
  value["firmware"] = module.firmware;
  value["versionBefore"] = module.version;
  value["due"] = module.due;
  if (module.due) {
    value["expectedSeconds"] = module.expectedSeconds;
    return value;
  }
  addTo(value, module.reason);
  return value;
}

UpdatePlan planIn(const Json::Value& members) {
  UpdatePlan plan;
  for (const Json::Value& value : members["modules"]) {
    PlannedModule module;
    module.library = textIn(value, "library");
    module.firmware = textIn(value, "firmware");
    module.version = textIn(value, "versionBefore");
    module.due = value["due"].asBool();
    module.expectedSeconds = value["expectedSeconds"].asUInt();
    module.reason.message = textIn(value, "message");
    plan.modules.push_back(module);
  }
  return plan;
}

}  // namespace tool
