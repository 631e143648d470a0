// SPDX-License-Identifier: Apache-2.0
#include "progress/progress-reporter.h"

#include <unistd.h>

#include <iostream>

#include "frame/report.h"
#include "live-line.h"
#include "printable-text.h"
#include "progress/milestones.h"
#include "progress/telling.h"
#include "text-layout.h"

namespace tool {
namespace {

// Draws the line again and again on its place.
class LiveReporter : public ProgressReporter {
 public:
  void tick(const UpdateProgress& progress) override {
    if (progress.phase != Phase::Updating && progress.elapsed < kNoticeableWait) {
      return;
    }
    line_.show(liveLine(progress, line_.width()),
               progress.overdue() ? std::optional<Colour>(Colour::Yellow) : std::nullopt);
  }
  void finish() override { line_.clear(); }

 private:
  LiveLine line_{STDOUT_FILENO};
};

class PlainReporter : public ProgressReporter {
 public:
  void start(const Options& options) override {
    std::cout << base::printableText(options.module) << ": update requested by " << options.caller->name
              << std::endl;
  }
  void tick(const UpdateProgress& progress) override {
    if (milestones_.reached(progress)) {
      std::cout << plainLine(progress) << std::endl;
    }
  }

 private:
  Milestones milestones_;
};

class NdjsonReporter : public ProgressReporter {
 public:
  void start(const Options& options) override {
    Json::Value event;
    event["event"] = "start";
    event["module"] = options.module;
    event["caller"] = options.caller->name;
    frame::putEvent(event);
  }
  void tick(const UpdateProgress& progress) override {
    if (progress.phase == Phase::Updating) {
      updating(progress);
    } else if (progress.phase == Phase::Waiting && progress.elapsed >= kNoticeableWait) {
      putOnce(progress, "waiting", waitingTold_);
    }
  }
  void verifying() override {
    Json::Value event;
    event["event"] = "verifying";
    frame::putEvent(event);
  }

 private:
  void updating(const UpdateProgress& progress) {
    if (!progressTold_ || progress.percent != lastPercent_) {
      put(progress, "progress");
    }
    progressTold_ = true;
    lastPercent_ = progress.percent;
    if (progress.overdue()) {
      putOnce(progress, "overdue", overdueTold_);
    }
  }
  static void putOnce(const UpdateProgress& progress, const char* name, bool& told) {
    if (!told) {
      put(progress, name);
    }
    told = true;
  }
  static void put(const UpdateProgress& progress, const char* name) {
    Json::Value event;
    event["event"] = name;
    event["elapsedSeconds"] = rounded(progress.elapsed);
    if (progress.phase == Phase::Updating && progress.percent) {
      event["percent"] = *progress.percent;
    }
    if (progress.limit) {
      event["expectedSeconds"] = progress.limit->expected;
      if (progress.limit->givesUp != 0) {
        event["givesUpAtSeconds"] = progress.limit->givesUp;
      }
    }
    frame::putEvent(event);
  }

  std::optional<unsigned int> lastPercent_;
  bool progressTold_ = false;
  bool waitingTold_ = false;
  bool overdueTold_ = false;
};

}  // namespace

std::unique_ptr<ProgressReporter> makeProgressReporter(const Options& options) {
  return makeReporter<ProgressReporter, NdjsonReporter, ProgressReporter, LiveReporter, PlainReporter>(
      options);
}

}  // namespace tool
