#include "run-progress.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <string>

#include "meaning-table.h"

namespace tool {
namespace {

constexpr const char* started = "========== [ %s update start ] ==========";
constexpr const char* succeeded = "========== [ %s update succeeded ] ==========";

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
  if (progress.phase != Phase::Updating)
    return 0;
  if (progress.percent)
    return expected * std::min(*progress.percent, 100U) / 100;
  return std::min(progress.elapsed, expected);
}

bool timedOut(const Turn& turn) {
  return std::any_of(turn.messages.begin(), turn.messages.end(), isTimeOut);
}

bool has(const Turn& turn, const char* format) {
  return findMessage(turn.messages, format) != nullptr;
}

// The last module before whose update was given up. The library lets only one
// update of a process into a module, also when it has given that one up.
std::optional<std::size_t> blockerOf(const std::vector<Turn>& turns, std::size_t index) {
  if (!timedOut(turns[index]) || has(turns[index], started))
    return std::nullopt;
  while (index-- > 0)
    if (timedOut(turns[index]) && has(turns[index], started))
      return index;
  return std::nullopt;
}

}  // namespace

std::vector<Turn> turnsOf(const LogMessages& messages) {
  std::vector<Turn> turns;
  std::map<long, std::size_t> turnOfWorker;
  const LogMessage* begin = findMessage(messages, text::updateAllTry);
  if (begin == nullptr)
    return turns;
  for (const LogMessage& message : messages) {
    if (message.thread != begin->thread) {
      // A worker's first message comes in its own module's turn.
      if (!turns.empty())
        turns[turnOfWorker.try_emplace(message.thread, turns.size() - 1).first->second].messages.push_back(
            message);
      continue;
    }
    const bool next = message.format == text::updateTime;
    if (!turns.empty() && !turns.back().end && (next || message.format == text::powerUnlock))
      turns.back().end = message.time;
    if (next)
      turns.push_back({{}, message.time, {}});
    if (!turns.empty() && !turns.back().end)
      turns.back().messages.push_back(message);
  }
  return turns;
}

Finding resultOf(const std::vector<Turn>& turns, const std::vector<PlannedModule>& due, std::size_t index) {
  const std::string& module = due[index].library;
  if (index >= turns.size())
    return {Outcome::Unexpected, module + " was not reached.", "Run it again: fw-update update-all"};
  const Turn& turn = turns[index];
  if (const auto blocker = blockerOf(turns, index))
    return {Outcome::TimedOut, module + " could not begin in time: " + due[*blocker].library + " still runs.",
            "Run it again: fw-update update-all"};
  const auto givenUp = std::find_if(turn.messages.begin(), turn.messages.end(), isTimeOut);
  if (givenUp == turn.messages.end())
    // The library keeps the results of a run to itself; -1 is the likely one.
    return explainUpdate(-1, turn.messages, module);
  // What came before tells of an end that the library missed; what comes later does
  // not count, unless all went well.
  const Finding finding = explainUpdate(1, LogMessages(turn.messages.begin(), givenUp + 1), module);
  if (finding.outcome == Outcome::TimedOut && has(turn, succeeded))
    return {Outcome::Updated, module + " was updated, but only after the library had given it up.", ""};
  return finding;
}

RunProgress runProgressOf(const std::vector<PlannedModule>& due, const std::vector<Turn>& turns,
                          std::optional<unsigned int> percent, std::chrono::steady_clock::time_point now) {
  RunProgress progress;
  progress.count = due.size();
  progress.number = std::min(turns.size(), due.size());
  double all = 0;
  double done = 0;
  for (std::size_t i = 0; i < due.size(); ++i) {
    const double expected = due[i].expectedSeconds;
    all += expected;
    if (i >= turns.size()) {
      progress.secondsLeft += expected;
      ++progress.modulesLeft;
    } else if (turns[i].end) {
      done += expected;
    } else {
      progress.module = progressOf(turns[i].messages, due[i].library, turns[i].start, now);
      progress.module.percent = percent;
      done += secondsDone(due[i], progress.module);
      progress.secondsLeft += std::max(0.0, expected - progress.module.elapsed);
      ++progress.modulesLeft;
    }
  }
  const double finished = static_cast<double>(due.size() - progress.modulesLeft);
  const double part = all > 0 ? done / all : due.empty() ? 1 : finished / static_cast<double>(due.size());
  progress.totalPercent = static_cast<unsigned int>(part * 100);
  return progress;
}

std::string plainLine(const RunProgress& progress) {
  return place(progress) + plainLine(progress.module) + "; " + total(progress);
}

std::string liveLine(const RunProgress& progress, std::size_t width) {
  constexpr std::size_t leastForModule = 30;
  const std::string before = place(progress);
  const std::string after = "  " + total(progress);
  if (width >= before.size() + after.size() + leastForModule)
    return before + liveLine(progress.module, width - before.size() - after.size()) + after;
  if (width > before.size())
    return before + liveLine(progress.module, width - before.size());
  return "";
}

}  // namespace tool
