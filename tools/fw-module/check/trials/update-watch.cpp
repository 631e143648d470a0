// SPDX-License-Identifier: Apache-2.0
#include "update-watch.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <iterator>
#include <thread>

#include "lent-memory.h"

namespace fwmodule {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPause(1);
constexpr std::chrono::milliseconds kNoticeableWait(500);
constexpr int kSlowerThanIdle = 3;  // times as long, at least
constexpr int kFurtherUpdates = 2;
constexpr unsigned int kWhole = 100;
constexpr char kSituation[] = "while doUpdate ran";

// What one thread saw that asked one entry point.
struct Watcher {
  EntryPoint entryPoint;
  std::function<void()> ask;
  Clock::duration longestWait{};  // for one answer
  Clock::duration idleWait{};     // for an answer after the update
};

class UpdateWatch {
 public:
  explicit UpdateWatch(const Stage& stage) : stage_(stage) {}
  UpdateWatch(const UpdateWatch&) = delete;
  UpdateWatch& operator=(const UpdateWatch&) = delete;

  WatchedUpdate run(const std::string& path, unsigned long crc, const char* situation);

 private:
  void addWatchers();
  void watch(Watcher& watcher);
  void askProgress();
  void note(const Watcher& watcher, Clock::duration elapsed);

  const Stage& stage_;
  std::vector<Watcher> watchers_;
  std::atomic<bool> ended_{false};
  WatchedUpdate update_;  // its percentages are their watcher's until all have ended
};

WatchedUpdate UpdateWatch::run(const std::string& path, unsigned long crc, const char* situation) {
  addWatchers();
  const Clock::time_point start = Clock::now();
  std::vector<std::thread> threads;
  for (Watcher& watcher : watchers_) {
    threads.emplace_back([this, &watcher] { watch(watcher); });
  }
  std::thread worker([&] {
    const FaultStack stack;
    update_.result = stage_.module.doUpdate(path, crc, situation);
    ended_ = true;
  });
  worker.join();
  const Clock::duration elapsed = Clock::now() - start;
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (const Watcher& watcher : watchers_) {
    note(watcher, elapsed);
  }
  return std::move(update_);
}

void UpdateWatch::addWatchers() {
  const auto add = [this](EntryPoint entryPoint, std::function<void()> ask) {
    if (stage_.module.has(entryPoint)) {
      watchers_.push_back({entryPoint, std::move(ask)});
    }
  };
  add(EntryPoint::GetUpdateProgress, [this] { askProgress(); });
  add(EntryPoint::GetActiveVersion, [this] { stage_.module.getActiveVersion(kSituation); });
  add(EntryPoint::GetExpectedTime, [this] { stage_.module.getExpectedTime(kSituation); });
}

void UpdateWatch::watch(Watcher& watcher) {
  const FaultStack stack;
  const auto timed = [&watcher] {
    const Clock::time_point asked = Clock::now();
    watcher.ask();
    return Clock::now() - asked;
  };
  while (!ended_) {
    watcher.longestWait = std::max(watcher.longestWait, timed());
    std::this_thread::sleep_for(kPause);
  }
  watcher.idleWait = timed();
}

void UpdateWatch::askProgress() {
  const auto progress = stage_.module.getUpdateProgress(kSituation);
  if (progress.result == 0 && progress.written && !ended_) {
    update_.percentages.push_back(progress.value);
  }
}

void UpdateWatch::note(const Watcher& watcher, Clock::duration elapsed) {
  const bool waited = watcher.longestWait >= kNoticeableWait && watcher.longestWait > elapsed / 2 &&
                      watcher.longestWait > kSlowerThanIdle * watcher.idleWait;
  update_.asked |= callsTo(watcher.entryPoint);
  update_.waited |= waited ? callsTo(watcher.entryPoint) : 0;
}

}  // namespace

WatchedUpdate watchUpdate(const Stage& stage, const std::string& path, unsigned long crc,
                          const char* situation) {
  return UpdateWatch(stage).run(path, crc, situation);
}

void judgeProgress(const Stage& stage, const WatchedUpdate& update) {
  Transcript& transcript = stage.transcript;
  const std::vector<unsigned int>& percentages = update.percentages;
  if (percentages.empty()) {
    const char* const reason = stage.module.has(EntryPoint::GetUpdateProgress)
                                   ? "it told no progress while the update ran"
                                   : "it does not export getUpdateProgress";
    transcript.notChecked(Check::ProgressRange, reason);
    transcript.notChecked(Check::ProgressFalls, reason);
    return;
  }
  const unsigned int greatest = *std::max_element(percentages.begin(), percentages.end());
  transcript.judge(greatest <= kWhole, Check::ProgressRange, EntryPoint::GetUpdateProgress,
                   "getUpdateProgress wrote " + std::to_string(greatest) + " while doUpdate ran.");
  const auto fall = std::adjacent_find(percentages.begin(), percentages.end(), std::greater<>());
  if (fall == percentages.end()) {
    transcript.passed(Check::ProgressFalls);
  } else {
    transcript.finding(Check::ProgressFalls, EntryPoint::GetUpdateProgress,
                       "getUpdateProgress fell from " + std::to_string(*fall) + " to " +
                           std::to_string(*std::next(fall)) + " while doUpdate ran.");
  }
}

void judgeWaits(const Stage& stage, const WatchedUpdate& update,
                const std::function<WatchedUpdate()>& again) {
  EntryPointSet waited = update.waited;
  for (int i = 0; i < kFurtherUpdates && waited != 0; ++i) {
    waited &= again().waited;
  }
  for (const EntryPointInfo& entry : kEntryPoints) {
    if (contains(update.asked, entry.entryPoint)) {
      stage.transcript.judge(!contains(waited, entry.entryPoint), Check::QueryWaits, entry.entryPoint,
                             std::string(entry.name) + " did not answer before doUpdate was over.");
    }
  }
}

}  // namespace fwmodule
