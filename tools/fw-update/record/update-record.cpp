// SPDX-License-Identifier: Apache-2.0
#include "record/update-record.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

#include "device-paths.h"
#include "isolation/service-gate.h"
#include "lock/update-lock.h"
#include "metrics.h"
#include "module-names.h"
#include "record/image-facts.h"

namespace tool {
namespace {

constexpr int kServiceBusyMs = 5000;

struct Way {
  const char* command;
  const char* way;
  bool ofMany;  // modules, which have entries of their own
};

constexpr char kDownload[] = "download";

constexpr Way kWays[] = {
    {"update", "direct", false},
    {"update-all", "update-all", true},
    {"usb apply", "usb", true},
    {kDownload, kDownload, false},
};

const Way* wayOf(const std::string& command, const Options& options) {
  for (const Way& way : kWays) {
    if (command == way.command && !options.dryRun) {
      return &way;
    }
  }
  return nullptr;
}

std::string nameOf(uid_t number) {
  const passwd* const user = getpwuid(number);
  return user != nullptr ? user->pw_name : std::to_string(number);
}

constexpr struct {
  fwmessages::Stage stage;
  const char* name;
} kStages[] = {
    {fwmessages::Stage::Check, "check"},
    {fwmessages::Stage::WaitForLock, "wait for the lock"},
    {fwmessages::Stage::Prepare, "prepare"},
    {fwmessages::Stage::InModule, "module"},
};

std::string stepsOf(const LogMessages& log, const std::string& module, const std::string& firmware) {
  std::string steps;
  const fwmessages::UpdateTracker tracker = trackerOf(log);
  for (const fwmessages::Update& update : tracker.updates()) {
    if (update.module != module && (firmware.empty() || update.firmware != firmware)) {
      continue;
    }
    steps.clear();  // the last one counts
    for (const auto& row : kStages) {
      if (const auto time = update.timeIn(row.stage)) {
        char text[64];
        std::snprintf(text, sizeof text, "%s%s %.1f s", steps.empty() ? "" : ", ", row.name,
                      static_cast<double>(*time) / 1e9);
        steps += text;
      }
    }
  }
  return steps;
}

// The last lines that the module wrote into the log itself.
std::string messagesOf(const LogMessages& log, const std::string& module) {
  constexpr std::size_t kMostLines = 10;
  constexpr std::size_t kLongestLine = 500;
  std::vector<std::string> lines;
  for (const LogMessage& message : log) {
    if (message.format.empty() && message.text.rfind(module + ": ", 0) == 0) {
      lines.push_back(message.text.substr(0, kLongestLine));
    }
  }
  std::string text;
  for (std::size_t i = lines.size() > kMostLines ? lines.size() - kMostLines : 0; i < lines.size(); ++i) {
    text += (text.empty() ? "" : "\n") + lines[i];
  }
  return text;
}

std::string textOf(const Json::Value& details, const char* member) {
  return details.isMember(member) ? details[member].asString() : "";
}

void setText(std::string& text, const Json::Value& details, const char* member) {
  if (details.isMember(member)) {
    text = details[member].asString();
  }
}

// Nothing when there is no lock yet.
std::optional<bool> isLockTaken() {
  const UpdateLock lock;
  return lock.error() == 0 ? std::optional<bool>(lock.value() == 0) : std::nullopt;
}

// Tells each module's turn to the record as well.
class RecordedRun : public RunReporter {
 public:
  explicit RecordedRun(std::unique_ptr<RunReporter> reporter) : reporter_(std::move(reporter)) {}

  void start(const UpdatePlan& plan) override {
    for (const PlannedModule& module : plan.due()) {
      tellDue(module);
    }
    reporter_->start(plan);
  }
  void tick(const RunProgress& progress) override {
    UpdateRecord::instance().moduleBegins(progress.module.module);
    reporter_->tick(progress);
  }
  void moduleEnded(std::size_t number, const PlannedModule& module, const Finding& finding) override {
    tellDue(module);
    UpdateRecord::instance().moduleBegins(module.library);
    UpdateRecord::instance().moduleEnded(module.library, finding);
    reporter_->moduleEnded(number, module, finding);
  }
  void goesOn(const RunProgress& progress) override { reporter_->goesOn(progress); }
  void finish() override { reporter_->finish(); }

 private:
  // One that is due only now has changed its mind since the plan.
  static void tellDue(const PlannedModule& module) {
    UpdateRecord::instance().moduleIsDue(module.library, module.firmware, module.version);
  }

  const std::unique_ptr<RunReporter> reporter_;
};

}  // namespace

UpdateRecord& UpdateRecord::instance() {
  static auto* const kRecord = new UpdateRecord;  // a module may still run at the end
  return *kRecord;
}

void UpdateRecord::begin(const std::string& command, const Options& options) {
  const Way* const way = wayOf(command, options);
  if (way == nullptr) {
    return;
  }
  history::SettingsRead read = history::readSettings();
  problem_ = read.problem;
  metricsFile_ = read.settings.metrics;
  const auto asker = askedThroughService();
  if (asker) {
    read.settings.mostBusyMs = kServiceBusyMs;
  }
  history_ = std::make_unique<history::History>(std::move(read.settings));
  whole_.entry.user = nameOf(asker.value_or(getuid()));
  whole_.entry.way = way->way;
  if (command == kDownload) {
    whole_.entry.module = options.modules.size() == 1 ? options.modules.front() : "";
  } else if (!way->ofMany) {
    whole_.entry.way = asker ? "service" : way->way;
    whole_.entry.caller = options.callerName;
    whole_.entry.module = options.module;
    place_ = options.caller->images;
    if (options.caller->type == CALLER_DEBUG && options.requestData() == "USB") {
      place_ = UPDATE_TYPE_USB;
    }
  }
  whole_.attempt = history_->begin(whole_.entry);
}

void UpdateRecord::moduleIsDue(const std::string& module, const std::string& firmware,
                               const std::string& version) {
  if (history_ == nullptr || parts_.count(module) != 0) {
    return;
  }
  const bool isWhole = whole_.entry.module == module;
  history::Entry& entry = isWhole ? whole_.entry : parts_[module].entry;
  entry.module = module;
  entry.firmware = firmware;
  entry.versionBefore = version;
  addImageFacts(entry, place_);
  if (!isWhole) {
    entry.run = whole_.attempt.number;
    entry.way = whole_.entry.way;
    entry.user = whole_.entry.user;
  }
}

void UpdateRecord::moduleBegins(const std::string& module) {
  const auto part = parts_.find(module);
  if (history_ != nullptr && part != parts_.end() && !std::exchange(part->second.hasBegun, true)) {
    part->second.attempt = history_->begin(part->second.entry);
  }
}

void UpdateRecord::moduleEnded(const std::string& module, const Finding& finding) {
  const auto part = parts_.find(module);
  if (history_ == nullptr || part == parts_.end()) {
    return;
  }
  history::Entry& entry = part->second.entry;
  entry.outcome = infoOf(finding.outcome).id;
  entry.sentence = finding.message;
  entry.remedy = finding.remedy;
  history_->finish(part->second.attempt, entry);
}

// One that has no entry before the command's end.
UpdateRecord::Part& UpdateRecord::partOf(const std::string& module) {
  Part& part = parts_[module];
  part.entry.module = module;
  part.entry.run = whole_.attempt.number;
  part.entry.way = whole_.entry.way;
  part.entry.user = whole_.entry.user;
  part.attempt.began = whole_.attempt.began;
  return part;
}

// One package of a download's document.
void UpdateRecord::endDownload(const Json::Value& told) {
  const std::string module = textOf(told, "module");
  const std::string package = textOf(told, "package");
  Part& part = whole_.entry.module == module ? whole_ : partOf(module);
  if (!package.empty()) {
    part.entry.firmware = fwnames::firmwareNameOf(package);
    part.entry.image = fwpaths::kPackageImages + package + ".img";
    part.entry.source = kDownload;
  }
  if (&part != &whole_) {
    setText(part.entry.outcome, told, "outcome");
    setText(part.entry.sentence, told, "message");
    setText(part.entry.remedy, told, "remedy");
    history_->finish(part.attempt, part.entry);
  }
}

// One module of the command's document.
void UpdateRecord::endPart(const Json::Value& told, const LogMessages& log) {
  const std::string module = textOf(told, "library");
  const bool isUsb = whole_.entry.way == std::string("usb");
  if (isUsb && textOf(told, "outcome") == infoOf(Outcome::NothingToDo).id) {
    return;
  }
  if (isUsb) {
    Part& part = partOf(module);
    part.entry.firmware = textOf(told, "firmware");
    part.entry.versionBefore = textOf(told, "version");
    addPackageFacts(part.entry, whole_.entry.image + part.entry.firmware + ".bin");
  }
  const auto part = parts_.find(module);
  if (part == parts_.end()) {
    return;
  }
  history::Entry& entry = part->second.entry;
  setText(entry.outcome, told, "outcome");
  setText(entry.sentence, told, isUsb ? "reason" : "message");
  setText(entry.remedy, told, "remedy");
  setText(entry.versionAfter, told, "versionAfter");
  entry.steps = stepsOf(log, module, entry.firmware);
  entry.messages = messagesOf(log, module);
  history_->finish(part->second.attempt, entry);
}

void UpdateRecord::endParts(const frame::Report& report, const LogMessages& log) {
  if (report.details["packages"].isArray() && whole_.entry.way == kDownload) {
    for (const Json::Value& told : report.details["packages"]) {
      endDownload(told);
    }
  }
  if (!report.details["modules"].isArray()) {
    return;
  }
  for (const Json::Value& told : report.details["modules"]) {
    endPart(told, log);
  }
}

// A sentence about what went wrong; empty when nothing did.
std::string UpdateRecord::writeMetrics() const {
  if (metricsFile_.empty()) {
    return "";
  }
  try {
    return history::writeMetrics(metricsFile_, history::metricsOf(history_->totals(), isLockTaken()));
  } catch (const history::Failure& failure) {
    return failure.what();
  }
}

void UpdateRecord::tellProblems(frame::Report& report) const {
  for (const std::string& problem : {problem_, history_->warning(), writeMetrics()}) {
    if (!problem.empty()) {
      report.remarks.push_back("warning: " + problem);
      report.details["warnings"].append(problem);
    }
  }
}

void UpdateRecord::end(frame::Report& report, const LogMessages& log) {
  if (history_ == nullptr) {
    return;
  }
  history::Entry& entry = whole_.entry;
  entry.outcome = report.ending->id;
  entry.sentence = report.message;
  entry.remedy = report.remedy;
  setText(entry.image, report.details, "directory");
  setText(entry.versionBefore, report.details, "versionBefore");
  setText(entry.versionAfter, report.details, "versionAfter");
  if (!entry.module.empty()) {
    entry.steps = stepsOf(log, entry.module, entry.firmware);
    entry.messages = messagesOf(log, entry.module);
  }
  endParts(report, log);
  history_->finish(whole_.attempt, entry);
  tellProblems(report);
}

std::unique_ptr<RunReporter> recorded(std::unique_ptr<RunReporter> reporter) {
  return std::make_unique<RecordedRun>(std::move(reporter));
}

}  // namespace tool
