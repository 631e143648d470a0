// SPDX-License-Identifier: Apache-2.0
#include "update-all/run-progress.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "library-messages.h"
#include "library/meaning-table.h"

namespace tool {
namespace {

std::string wholeSeconds(double seconds) {
  return std::to_string(static_cast<long long>(std::ceil(seconds))) + " s";
}

std::string place(const RunProgress& progress) {
  return std::to_string(progress.number) + "/" + std::to_string(progress.count) + " ";
}

std::string total(const RunProgress& progress) {
  return "in total " + std::to_string(progress.totalPercent) + " %, about " +
         wholeSeconds(progress.secondsLeft) + " left";
}

// Seconds of the expected time that are behind.
double secondsDone(const PlannedModule& module, const UpdateProgress& progress) {
  const double expected = module.expectedSeconds;
  if (progress.phase != Phase::Updating) {
    return 0;
  }
  if (progress.percent) {
    return expected * std::min(*progress.percent, 100U) / 100;
  }
  return std::min(progress.elapsed, expected);
}

bool hasBegun(const Turn& turn) {
  return turn.update.find(fwmessages::Stage::InModule) != nullptr;
}

// The last module before whose update was given up. The library lets only one
// update of a process into a module, also when it has given that one up.
std::optional<std::size_t> blockerOf(const Run& run, std::size_t index) {
  if (!run[index].turn->update.timedOut || hasBegun(*run[index].turn)) {
    return std::nullopt;
  }
  while (index-- > 0) {
    const auto& turn = run[index].turn;
    if (turn && turn->update.timedOut && hasBegun(*turn)) {
      return index;
    }
  }
  return std::nullopt;
}

// The turns that have begun.
std::vector<Turn> turnsOf(const LogMessages& messages) {
  std::vector<Turn> turns;
  const fwmessages::UpdateTracker tracker = trackerOf(messages);
  for (const fwmessages::Update& update : tracker.updates()) {
    if (!update.ofRun) {
      continue;
    }
    turns.push_back({update, {}});
    for (const std::size_t number : update.messages) {
      turns.back().messages.push_back(messages[number]);
    }
  }
  return turns;
}

bool wasNeeded(const RunModule& module) {
  return !module.asked.empty() && !strongestMeaning(module.asked, module.planned.library);
}

// The module whose turn it is, from that place on. Of several with one firmware name it is
// the first that said yes.
std::size_t moduleOf(const Turn& turn, const Run& all, std::size_t from) {
  std::size_t found = all.size();
  for (std::size_t i = from; i < all.size(); ++i) {
    if (all[i].planned.firmware != turn.update.firmware) {
      continue;
    }
    if (wasNeeded(all[i])) {
      return i;
    }
    found = std::min(found, i);
  }
  return found;
}

// A module that was not to be updated, and is.
void makeDue(PlannedModule& module, const Turn& turn) {
  if (module.due) {
    return;
  }
  module.due = true;
  module.reason = {};
  if (turn.update.limit) {
    module.expectedSeconds = turn.update.limit->expected;
  }
}

}  // namespace

std::optional<double> Turn::duration() const {
  const fwmessages::StageSpan* begin = update.find(fwmessages::Stage::WaitForLock);
  if (!update.ended || begin == nullptr) {
    return std::nullopt;
  }
  return static_cast<double>(*update.ended - begin->span.begin) / 1e9;
}

Run runOf(const std::vector<PlannedModule>& planned, const LogMessages& messages) {
  Run all;
  for (const PlannedModule& module : planned) {
    all.push_back({module, checkOf(messages, module.library), std::nullopt});
  }
  std::size_t from = 0;
  for (const Turn& turn : turnsOf(messages)) {
    const std::size_t index = moduleOf(turn, all, from);
    if (index == all.size()) {
      continue;
    }
    all[index].turn = turn;
    makeDue(all[index].planned, turn);
    from = index + 1;
  }
  all.erase(
      std::remove_if(all.begin(), all.end(), [](const RunModule& module) { return !module.planned.due; }),
      all.end());
  return all;
}

std::size_t begunOf(const Run& run) {
  std::size_t begun = 0;
  for (std::size_t i = 0; i < run.size(); ++i) {
    if (run[i].turn) {
      begun = i + 1;
    }
  }
  return begun;
}

bool hasEnded(const Run& run, std::size_t index) {
  const auto& turn = run[index].turn;
  return turn ? turn->update.ended.has_value() : index < begunOf(run);
}

Finding resultOf(const Run& run, std::size_t index) {
  const std::string& module = run[index].planned.library;
  if (!run[index].turn) {
    // Whatever the plan said, the module's last answer is why it had no turn.
    const auto reason = strongestMeaning(run[index].asked, module);
    return reason ? *reason
                  : Finding{Outcome::Unexpected, module + " was not reached.",
                            "Run it again: fw-update update-all"};
  }
  const Turn& turn = *run[index].turn;
  if (const auto blocker = blockerOf(run, index)) {
    return {Outcome::TimedOut,
            module + " could not begin in time: " + run[*blocker].planned.library + " still runs.",
            "Run it again: fw-update update-all"};
  }
  const auto givenUp = std::find_if(turn.messages.begin(), turn.messages.end(), isTimeOut);
  if (givenUp == turn.messages.end()) {
    // The library keeps the results of a run to itself; -1 is the likely one.
    return explainUpdate(-1, turn.messages, module);
  }
  // What came before tells of an end that the library missed; what comes later does
  // not count, unless all went well.
  const Finding finding = explainUpdate(1, LogMessages(turn.messages.begin(), givenUp + 1), module);
  if (finding.outcome == Outcome::TimedOut &&
      findMessage(turn.messages, MESSAGE_WRITE_SUCCEEDED) != nullptr) {
    return {Outcome::Updated, module + " was updated, but only after the library had given it up.", ""};
  }
  return finding;
}

RunProgress runProgressOf(const Run& run, std::optional<unsigned int> percent,
                          std::chrono::steady_clock::time_point now) {
  RunProgress progress;
  progress.count = run.size();
  progress.number = begunOf(run);
  double all = 0;
  double done = 0;
  for (std::size_t i = 0; i < run.size(); ++i) {
    const PlannedModule& module = run[i].planned;
    const double expected = module.expectedSeconds;
    all += expected;
    if (hasEnded(run, i)) {
      done += expected;
      continue;
    }
    ++progress.modulesLeft;
    progress.secondsLeft += expected;
    if (!run[i].turn) {
      continue;
    }
    progress.module = progressOf(run[i].turn->messages, module.library, now, now);
    progress.module.percent = percent;
    done += secondsDone(module, progress.module);
    progress.secondsLeft -= std::min(expected, progress.module.elapsed);
  }
  const double finished = static_cast<double>(run.size() - progress.modulesLeft);
  const double part = all > 0 ? done / all : run.empty() ? 1 : finished / static_cast<double>(run.size());
  progress.totalPercent = static_cast<unsigned int>(part * 100);
  return progress;
}

std::string plainLine(const RunProgress& progress) {
  return place(progress) + plainLine(progress.module) + "; " + total(progress);
}

std::string liveLine(const RunProgress& progress, std::size_t width) {
  constexpr std::size_t kLeastForModule = 30;
  const std::string before = place(progress);
  const std::string after = "  " + total(progress);
  if (width >= before.size() + after.size() + kLeastForModule) {
    return before + liveLine(progress.module, width - before.size() - after.size()) + after;
  }
  if (width > before.size()) {
    return before + liveLine(progress.module, width - before.size());
  }
  return "";
}

}  // namespace tool
