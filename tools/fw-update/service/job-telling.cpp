// SPDX-License-Identifier: Apache-2.0
#include "service/job-telling.h"

#include <algorithm>
#include <chrono>
#include <optional>

#include "frame/report.h"
#include "progress/download-reporter.h"
#include "progress/progress-reporter.h"
#include "progress/telling.h"
#include "report.h"
#include "service/document.h"
#include "update-all/run-reporter.h"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr char kStart[] = "start";
constexpr char kResult[] = "result";
constexpr char kVerifying[] = "verifying";

// Seconds, counted on from what was told last.
class Elapsed {
 public:
  void set(double seconds) {
    told_ = seconds;
    since_ = Clock::now();
  }
  double now() const { return told_ + std::chrono::duration<double>(Clock::now() - since_).count(); }

 private:
  double told_ = 0;
  Clock::time_point since_ = Clock::now();
};

constexpr struct {
  const char* event;
  Phase phase;
} kPhases[] = {
    {kStart, Phase::Checking},     {"module-start", Phase::Checking}, {"waiting", Phase::Waiting},
    {"progress", Phase::Updating}, {"overdue", Phase::Updating},
};

// Leaves what the event says nothing of.
void take(UpdateProgress& progress, Elapsed& elapsed, const Json::Value& event) {
  const std::string name = textIn(event, "event");
  for (const auto& row : kPhases) {
    if (name == row.event) {
      progress.phase = row.phase;
    }
  }
  if (event.isMember("module")) {
    progress.module = textIn(event, "module");
  }
  progress.percent.reset();
  if (event.isMember("percent") && event["percent"].asUInt() <= 100) {  // a module may say anything
    progress.percent = event["percent"].asUInt();
  }
  if (event.isMember("expectedSeconds")) {
    progress.limit = TimeLimit{event["expectedSeconds"].asUInt(), event["givesUpAtSeconds"].asUInt()};
  }
  elapsed.set(event["elapsedSeconds"].asDouble());
}

// As it comes.
class EventTelling : public JobTelling {
 public:
  void take(const Json::Value& event) override {
    if (textIn(event, "event") != kResult) {
      frame::putEvent(event);
    }
  }
};

// Of an update, or of one package after the other.
class UpdateTelling : public JobTelling {
 public:
  explicit UpdateTelling(const Options& options) : options_(options) {
    progress_.module = options.module;
    progress_.phase = Phase::Waiting;
  }

  void take(const Json::Value& event) override {
    const std::string name = textIn(event, "event");
    if (name == kResult || name == kVerifying) {
      finish();
      return;
    }
    if (name == kStart) {
      start(event.isMember("caller"));
    }
    tool::take(progress_, elapsed_, event);
    tick(JobState());
  }

  // A job that waits for others says nothing of it.
  void tick(const JobState& job) override {
    if (!isOver_ && (hasBegun_ || job.state == "queued")) {
      progress_.elapsed = elapsed_.now();
      reporter_->tick(progress_);
    }
  }

  void finish() override {
    reporter_->finish();
    isOver_ = true;
  }

 private:
  void start(bool isUpdate) {
    reporter_->finish();
    reporter_ = makeProgressReporter(options_);
    if (isUpdate) {
      reporter_->start(options_);
    }
    progress_ = UpdateProgress();
    hasBegun_ = true;
  }

  const Options& options_;
  std::unique_ptr<ProgressReporter> reporter_ = makeProgressReporter(options_);
  UpdateProgress progress_;
  Elapsed elapsed_;
  bool hasBegun_ = false;
  bool isOver_ = false;
};

class RunTelling : public JobTelling {
 public:
  explicit RunTelling(const Options& options) : reporter_(makeRunReporter(options)) {}

  void take(const Json::Value& event) override {
    const std::string name = textIn(event, "event");
    if (name == kStart) {
      plan_ = planIn(event);
      reporter_->start(plan_);
    } else if (name == "module-end") {
      end(event);
    } else if (name != kResult) {
      moment(event);
      if (name == "goes-on") {
        reporter_->goesOn(progress_);
      }
    }
  }

  void tick(const JobState&) override {
    if (isAtWork_) {
      progress_.module.elapsed = elapsed_.now();
      reporter_->tick(progress_);
    }
  }

  void finish() override { reporter_->finish(); }

 private:
  void moment(const Json::Value& event) {
    if (textIn(event, "event") == "module-start") {
      progress_.module = UpdateProgress();
    }
    tool::take(progress_.module, elapsed_, event);
    progress_.number = event["number"].asUInt();
    progress_.count = event["count"].asUInt();
    progress_.totalPercent = event["totalPercent"].asUInt();
    progress_.secondsLeft = event["secondsLeft"].asDouble();
    progress_.modulesLeft = event["modulesLeft"].asUInt();
    isAtWork_ = true;
    tick(JobState());
  }

  void end(const Json::Value& event) {
    isAtWork_ = false;
    Finding finding;
    finding.message = textIn(event, "message");
    if (textIn(event, "outcome") == infoOf(Outcome::Updated).id) {
      finding.outcome = Outcome::Updated;
    }
    reporter_->moduleEnded(event["number"].asUInt(), PlannedModule(), finding);
  }

  std::unique_ptr<RunReporter> reporter_;
  UpdatePlan plan_;
  RunProgress progress_;
  Elapsed elapsed_;
  bool isAtWork_ = false;
};

class DownloadTelling : public JobTelling {
 public:
  explicit DownloadTelling(const Options& options) : reporter_(makeDownloadReporter(options)) {}

  void take(const Json::Value& event) override {
    const std::string package = textIn(event, "package");
    if (textIn(event, "event") == kStart) {
      reporter_->start(package);
    } else if (textIn(event, "event") == "progress") {
      appbinaryManager::DownloadProgress progress;
      progress.received = event["received"].asInt64();
      progress.total = event.isMember("total") ? event["total"].asInt64() : -1;
      reporter_->tick(package, progress);
    }
  }
  void finish() override { reporter_->finish(); }

 private:
  std::unique_ptr<DownloadReporter> reporter_;
};

// From what the job is now, whatever it is.
class WatchTelling : public JobTelling {
 public:
  explicit WatchTelling(const Options& options) : reporter_(makeProgressReporter(options)) {}

  void tick(const JobState& job) override {
    if (!job.isAtWork()) {
      return;
    }
    if (known_ != job.elapsedSeconds) {
      known_ = job.elapsedSeconds;
      elapsed_.set(job.elapsedSeconds);
    }
    reporter_->tick(progressOf(job));
  }
  void finish() override { reporter_->finish(); }

 private:
  UpdateProgress progressOf(const JobState& job) const {
    UpdateProgress progress;
    progress.module = job.module.empty() ? job.kind : job.module;
    progress.elapsed = elapsed_.now();
    if (job.state == "waiting-for-lock") {
      progress.phase = Phase::Waiting;
    } else if (job.state != "checking") {
      progress.phase = Phase::Updating;
    }
    if (job.percent >= 0) {
      progress.percent = static_cast<unsigned int>(job.percent);
    }
    if (job.expectedSeconds > 0) {
      progress.limit = TimeLimit{job.expectedSeconds, 0};
    }
    return progress;
  }

  std::unique_ptr<ProgressReporter> reporter_;
  std::optional<double> known_;
  Elapsed elapsed_;
};

}  // namespace

std::unique_ptr<JobTelling> makeJobTelling(const Options& options, const std::string& kind) {
  const Telling telling = tellingOf(options);
  if (telling == Telling::Events) {
    return std::make_unique<EventTelling>();
  }
  if (telling == Telling::Document) {
    return std::make_unique<JobTelling>();
  }
  if (kind == "update-all") {
    return std::make_unique<RunTelling>(options);
  }
  if (kind == "download") {
    return std::make_unique<DownloadTelling>(options);
  }
  return std::make_unique<UpdateTelling>(options);
}

void takeLine(JobTelling& telling, const std::string& line) {
  const Json::Value event = parsedDocument(line);
  if (event.isNull()) {
    return;
  }
  try {
    telling.take(event);
  } catch (const Json::Exception&) {  // another kind of value
  }
}

std::unique_ptr<JobTelling> makeWatchTelling(const Options& options) {
  switch (tellingOf(options)) {
    case Telling::Events:
      return std::make_unique<EventTelling>();
    case Telling::Document:
      return std::make_unique<JobTelling>();
    case Telling::Live:
    case Telling::Lines:
      break;
  }
  return std::make_unique<WatchTelling>(options);
}

}  // namespace tool
