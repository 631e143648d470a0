// SPDX-License-Identifier: Apache-2.0
#include "progress/update-progress.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "printable-text.h"

namespace tool {
namespace {

constexpr std::size_t kWidestBar = 30;
constexpr std::size_t kNarrowestBar = 8;

// The first of these that an update has come to.
constexpr struct {
  fwmessages::Stage stage;
  Phase phase;
} kPhases[] = {
    {fwmessages::Stage::Prepare, Phase::Updating},
    {fwmessages::Stage::InModule, Phase::Updating},
    {fwmessages::Stage::WaitForLock, Phase::Waiting},
};

std::string seconds(double value) {
  return std::to_string(static_cast<long long>(std::floor(value))) + " s";
}

std::string bar(unsigned int percent, std::size_t width) {
  const std::size_t full = width * std::min(percent, 100U) / 100;
  return "[" + std::string(full, '#') + std::string(width - full, '.') + "]";
}

std::string percentText(unsigned int percent) {
  return std::to_string(percent) + " %";
}

// What a line begins with; a job that waits for others may not know its module yet.
std::string nameBefore(const UpdateProgress& progress, const char* rest) {
  return progress.module.empty() ? "" : base::printableText(progress.module) + rest;
}

double secondsOver(const UpdateProgress& progress) {
  return std::ceil(progress.elapsed - static_cast<double>(progress.limit->expected));
}

std::string shortTime(const UpdateProgress& progress) {
  return progress.overdue() ? seconds(secondsOver(progress)) + " over" : seconds(progress.elapsed);
}

}  // namespace

UpdateProgress progressOf(const LogMessages& messages, const std::string& module,
                          std::chrono::steady_clock::time_point start,
                          std::chrono::steady_clock::time_point now) {
  UpdateProgress progress;
  progress.module = module;
  auto since = start;
  const fwmessages::UpdateTracker tracker = trackerOf(messages);
  if (!tracker.updates().empty()) {
    const fwmessages::Update& update = tracker.updates().back();
    progress.limit = update.limit;
    for (const auto& row : kPhases) {
      if (const fwmessages::StageSpan* stage = update.find(row.stage)) {
        progress.phase = row.phase;
        since = std::chrono::steady_clock::time_point(std::chrono::nanoseconds(stage->span.begin));
        break;
      }
    }
  }
  progress.elapsed = std::max(0.0, std::chrono::duration<double>(now - since).count());
  return progress;
}

std::string timeText(const UpdateProgress& progress) {
  switch (progress.phase) {
    case Phase::Checking:
      return "checking the image, " + seconds(progress.elapsed);
    case Phase::Waiting:
      return "waiting for another update to finish, " + seconds(progress.elapsed);
    case Phase::Updating:
      break;
  }
  if (!progress.limit) {
    return seconds(progress.elapsed);
  }
  const std::string expected = std::to_string(progress.limit->expected) + " s";
  if (!progress.overdue()) {
    return seconds(progress.elapsed) + " of about " + expected;
  }
  const std::string over = seconds(secondsOver(progress)) + " over the expected " + expected;
  if (progress.limit->givesUp == 0) {
    return over;
  }
  return over + "; gives up at " + std::to_string(progress.limit->givesUp) + " s";
}

std::string plainLine(const UpdateProgress& progress) {
  std::string line = nameBefore(progress, ": ");
  if (progress.phase == Phase::Updating && progress.percent) {
    line += percentText(*progress.percent) + ", ";
  }
  return line + timeText(progress);
}

std::string liveLine(const UpdateProgress& progress, std::size_t width) {
  const std::string name = nameBefore(progress, "  ");
  const std::string time = timeText(progress);
  std::string percent;
  std::vector<std::string> candidates;
  if (progress.phase == Phase::Updating && progress.percent) {
    percent = percentText(*progress.percent) + "  ";
    percent.insert(0, percent.size() < 7 ? 7 - percent.size() : 0, ' ');
    const std::size_t taken = name.size() + 4 + percent.size() + time.size();
    if (width >= taken + kNarrowestBar) {
      candidates.push_back(name + bar(*progress.percent, std::min(kWidestBar, width - taken)) + "  " +
                           percent + time);
    }
  }
  candidates.push_back(name + percent + time);
  candidates.push_back(percent + time);
  candidates.push_back(percent + shortTime(progress));
  for (const std::string& line : candidates) {
    if (line.size() <= width) {
      return line;
    }
  }
  return candidates.back().substr(0, width);
}

}  // namespace tool
