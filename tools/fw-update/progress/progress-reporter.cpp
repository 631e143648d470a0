#include "progress/progress-reporter.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <iostream>

#include "clean-output.h"
#include "printable-text.h"
#include "progress/milestones.h"
#include "report.h"
#include "terminal.h"

namespace tool {
namespace {

// Draws the line again and again on its place.
class LiveReporter : public ProgressReporter {
 public:
  void tick(const UpdateProgress& progress) override {
    if (progress.phase != Phase::Updating && progress.elapsed < kNoticeableWait) {
      return;
    }
    const std::string line = liveLine(progress, terminalWidth(STDOUT_FILENO) - 1);
    std::cout << base::terminalOrder(base::Order::LineStart)
              << (progress.overdue() ? coloured(line, Colour::Yellow, STDOUT_FILENO) : line)
              << base::terminalOrder(base::Order::EraseToEnd) << std::flush;
    drawn_ = true;
  }
  void finish() override {
    if (drawn_) {
      std::cout << base::emptyLine() << std::flush;
    }
  }

 private:
  bool drawn_ = false;
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
    std::cout << onOneLine(event) << std::flush;
  }
  void tick(const UpdateProgress& progress) override {
    if (progress.phase == Phase::Updating) {
      updating(progress);
    } else if (progress.phase == Phase::Waiting && progress.elapsed >= kNoticeableWait) {
      putOnce(progress, "waiting", waitingTold_);
    }
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
    std::cout << onOneLine(event) << std::flush;
  }

  std::optional<unsigned int> lastPercent_;
  bool progressTold_ = false;
  bool waitingTold_ = false;
  bool overdueTold_ = false;
};

}  // namespace

bool hasLiveLine() {
  const char* sink = std::getenv("FW_UPDATE_LOG");
  const bool logInBetween = sink != nullptr && std::strcmp(sink, "stderr") == 0 && isatty(STDERR_FILENO) == 1;
  return isTerminal(STDOUT_FILENO) && !logInBetween;
}

std::unique_ptr<ProgressReporter> makeProgressReporter(const Options& options) {
  if (options.ndjson) {
    return std::make_unique<NdjsonReporter>();
  }
  if (options.json) {
    return std::make_unique<ProgressReporter>();
  }
  if (hasLiveLine()) {
    return std::make_unique<LiveReporter>();
  }
  return std::make_unique<PlainReporter>();
}

}  // namespace tool
