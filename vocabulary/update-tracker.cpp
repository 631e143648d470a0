// SPDX-License-Identifier: Apache-2.0
#include "update-tracker.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <utility>

#include "library-messages.h"

namespace fwmessages {
namespace {

constexpr struct {
  Event event;
  Activity activity;
} kActivities[] = {
    {Event::CheckBegins, Activity::Check},
    {Event::PackageChecked, Activity::Check},
    {Event::PackageMissing, Activity::Check},
    {Event::LockWanted, Activity::Wait},
    {Event::LockTaken, Activity::Write},
    {Event::ProcedureBegins, Activity::Procedure},
    {Event::PackageWriteBegins, Activity::Package},
    {Event::Succeeded, Activity::Finish},
    {Event::Failed, Activity::Finish},
    {Event::TimedOut, Activity::Finish},
    {Event::RequestEnds, Activity::Finish},
    {Event::RunEnds, Activity::Finish},
};

const std::string& argument(const Logged& message, std::size_t index) {
  static const std::string kNone;
  return index < message.arguments.size() ? message.arguments[index] : kNone;
}

// 0 for what is no number: a module may log in the library's form.
std::int64_t numberOf(const std::string& text) {
  std::int64_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

// The library prints the seconds signed. Nothing for what is no number.
std::optional<TimeLimit> limitOf(const std::string& seconds) {
  if (seconds.find_first_of("0123456789") == std::string::npos) {
    return std::nullopt;
  }
  const auto expected = static_cast<std::uint32_t>(numberOf(seconds));
  return TimeLimit{expected, static_cast<std::uint32_t>(expected + kWaitMarginSeconds)};
}

// "/usb/tunerfw.bin" -> "tunerfw"; empty for what is no package's path.
std::string firmwareOfPackage(const std::string& path) {
  constexpr std::string_view kEnding = ".bin";
  const std::size_t slash = path.rfind('/');
  const std::size_t end = path.rfind(kEnding);
  if (slash == std::string::npos || end == std::string::npos || end < slash) {
    return "";
  }
  return path.substr(slash + 1, end - slash - 1);
}

}  // namespace

std::optional<Activity> activityAfter(Event event) {
  const auto* const row = std::find_if(std::begin(kActivities), std::end(kActivities),
                                       [event](const auto& one) { return one.event == event; });
  return row == std::end(kActivities) ? std::nullopt : std::optional<Activity>(row->activity);
}

std::optional<std::int64_t> Update::timeIn(Stage stage) const {
  std::optional<std::int64_t> total;
  for (const StageSpan& part : stages) {
    if (part.stage == stage) {
      // One that nothing ended took the rest of the update, whatever its process did later.
      const std::int64_t end = part.isOpen ? span.end : std::min(part.span.end, span.end);
      total = total.value_or(0) + std::max<std::int64_t>(0, end - part.span.begin);
    }
  }
  return total;
}

const StageSpan* Update::find(Stage stage) const {
  const auto found = std::find_if(stages.begin(), stages.end(),
                                  [stage](const StageSpan& part) { return part.stage == stage; });
  return found == stages.end() ? nullptr : &*found;
}

void UpdateTracker::take(const Logged& message) {
  noteModule(message);
  dispatch(message);
  const auto update = current_.find(message.threadId);
  if (update != current_.end()) {
    updates_[update->second].messages.push_back(taken_);
  }
  ++taken_;
}

void UpdateTracker::dispatch(const Logged& message) {
  switch (message.event) {
    case Event::CheckBegins:
      return onCheckBegins(message);
    case Event::LockWanted:
      return onLockWanted(message);
    case Event::LockTaken:
      return onLockTaken(message);
    case Event::WriteBegins:
      return onWriteBegins(message);
    case Event::PackageWriteBegins:
      return onPackageWriteBegins(message);
    case Event::ProcedureBegins:
      return open(begin(message, argument(message, 0)), Stage::InModule, message);
    case Event::Succeeded:
      return leaveModule(message, Result::Updated, "");
    case Event::Failed:
      return leaveModule(message, Result::ModuleFailed, message.text);
    case Event::NotNeeded:
      return onNotNeeded(message);
    case Event::NotNeededAnyMore:
      return onNotNeededAnyMore(message);
    case Event::TimedOut:
      return onTimedOut(message);
    case Event::Error:
    case Event::PackageMissing:
      return onError(message);
    case Event::RequestEnds:
      return onRequestEnds(message);
    case Event::RunBegins:
      return onRunBegins(message);
    case Event::RunEnds:
      return onRunEnds(message);
    case Event::PackageChecked:
    case Event::Other:
      return;
  }
}

// ---- The module -------------------------------------------------------------------

// The module that the message is about; the same as before when it names none that is known.
std::string UpdateTracker::moduleOf(const Logged& message) const {
  if (message.event == Event::CheckBegins) {
    return argument(message, 0);
  }
  const bool isPackage = message.event == Event::PackageChecked || message.event == Event::PackageMissing;
  for (const std::string& text : message.arguments) {
    const auto known = modules_.find(isPackage ? firmwareOfPackage(text) : text);
    if (known != modules_.end()) {
      return known->second;
    }
  }
  return module_;
}

void UpdateTracker::noteModule(const Logged& message) {
  const auto activity = activityAfter(message.event);
  if (activity && activity != Activity::Finish) {
    module_ = moduleOf(message);
  }
}

// ---- Updates --------------------------------------------------------------------

Update& UpdateTracker::begin(const Logged& message, const std::string& firmware) {
  Update update;
  update.firmware = firmware;
  update.threadId = message.threadId;
  update.span = {message.time, message.time};
  const auto known = modules_.find(firmware);
  if (known != modules_.end() && !firmware.empty()) {
    update.module = known->second;
  }
  const auto check = checks_.find(message.threadId);
  if (check != checks_.end() && check->second.firmware == firmware) {
    update.module = check->second.module;
    update.span.begin = check->second.begin;
    update.stages.push_back({Stage::Check, message.threadId, {check->second.begin, message.time}, false});
    checks_.erase(check);
  }
  updates_.push_back(std::move(update));
  current_[message.threadId] = updates_.size() - 1;
  open_.insert(updates_.size() - 1);
  return updates_.back();
}

Update* UpdateTracker::ofThread(std::uint32_t threadId) {
  const auto found = current_.find(threadId);
  return found == current_.end() || open_.count(found->second) == 0 ? nullptr : &updates_[found->second];
}

// The request that this firmware's worker belongs to.
Update* UpdateTracker::waitingFor(const std::string& firmware) {
  for (const std::size_t index : open_) {
    Update& update = updates_[index];
    if (update.firmware == firmware && update.waitsForLock) {
      return &update;
    }
  }
  return nullptr;
}

void UpdateTracker::open(Update& update, Stage stage, const Logged& message) {
  update.stages.push_back({stage, message.threadId, {message.time, message.time}, true});
  update.span.end = std::max(update.span.end, message.time);
}

void UpdateTracker::close(Update& update, std::uint32_t threadId, std::int64_t time) {
  for (StageSpan& stage : update.stages) {
    if (stage.threadId == threadId && stage.isOpen) {
      stage.span.end = time;
      stage.isOpen = false;
    }
  }
}

void UpdateTracker::end(Update& update, std::int64_t time, Result result, const std::string& reason) {
  update.span.end = time;
  update.ended = time;
  update.waitsForLock = false;
  update.holdsLock = false;
  if (update.result == Result::Running) {
    update.result = result;
  }
  if (update.reason.empty() && update.result != Result::Updated) {
    update.reason = reason;
  }
  open_.erase(static_cast<std::size_t>(&update - updates_.data()));
}

void UpdateTracker::onCheckBegins(const Logged& message) {
  const std::string& module = argument(message, 0);
  const std::string& firmware = argument(message, 1);
  checks_[message.threadId] = {module, firmware, message.time, "", false};
  modules_[firmware] = module;
}

void UpdateTracker::onLockWanted(const Logged& message) {
  // In a run over all modules nothing else says that the module before is done.
  if (Update* const before = ofThread(message.threadId)) {
    end(*before, message.time, Result::Refused, "");
  }
  Update& update = begin(message, argument(message, 0));
  update.limit = limitOf(argument(message, 1));
  update.waitsForLock = true;
  update.ofRun = runThread_ == message.threadId;
  open(update, Stage::WaitForLock, message);
}

void UpdateTracker::onLockTaken(const Logged& message) {
  const std::string& firmware = argument(message, 0);
  Update* update = waitingFor(firmware);
  if (update == nullptr) {
    update = &begin(message, firmware);
  }
  update->holdsLock = update->waitsForLock;
  update->waitsForLock = false;
  close(*update, update->threadId, message.time);
  current_[message.threadId] = static_cast<std::size_t>(update - updates_.data());
  open(*update, Stage::Prepare, message);
}

void UpdateTracker::onWriteBegins(const Logged& message) {
  Update* update = ofThread(message.threadId);
  if (update == nullptr) {
    update = &begin(message, argument(message, 0));
  }
  close(*update, message.threadId, message.time);
  open(*update, Stage::InModule, message);
}

void UpdateTracker::onPackageWriteBegins(const Logged& message) {
  Update& update = begin(message, argument(message, 0));
  update.ofUsbPackage = true;
  open(update, Stage::InModule, message);
}

void UpdateTracker::leaveModule(const Logged& message, Result result, const std::string& reason) {
  const auto found = current_.find(message.threadId);
  if (found == current_.end()) {
    return;
  }
  Update& update = updates_[found->second];
  // After a time-out the module's end still counts for the time spent in it.
  close(update, message.threadId, message.time);
  update.span.end = std::max(update.span.end, message.time);
  if (update.result == Result::Running) {
    update.result = result;
  }
  if (update.reason.empty()) {
    update.reason = reason;
  }
  if (update.ofUsbPackage) {
    end(update, message.time, result, reason);
  }
}

void UpdateTracker::onNotNeeded(const Logged& message) {
  const auto check = checks_.find(message.threadId);
  if (check != checks_.end()) {
    check->second.notNeeded = true;
    check->second.reason = message.text;
  }
}

void UpdateTracker::onNotNeededAnyMore(const Logged& message) {
  if (ofThread(message.threadId) != nullptr) {
    leaveModule(message, Result::NotNeeded, message.text);
  }
}

void UpdateTracker::onTimedOut(const Logged& message) {
  Update* const update = ofThread(message.threadId);
  if (update == nullptr) {
    return;
  }
  close(*update, message.threadId, message.time);
  update->timedOut = true;
  update->waitsForLock = false;
  update->holdsLock = false;
  update->result = update->result == Result::Running ? Result::TimedOut : update->result;
  update->reason = message.text;
  update->span.end = message.time;
}

// The first reason counts for a request, the worker's as well as the check's.
void UpdateTracker::onError(const Logged& message) {
  const auto check = checks_.find(message.threadId);
  Update* const update = ofThread(message.threadId);
  std::string* const reason = check != checks_.end() ? &check->second.reason
                              : update != nullptr    ? &update->reason
                                                     : nullptr;
  if (reason != nullptr && reason->empty()) {
    *reason = message.text;
  }
  if (update != nullptr && check == checks_.end() && update->threadId != message.threadId &&
      update->result == Result::Running) {
    close(*update, message.threadId, message.time);
    update->result = Result::Refused;
  }
}

void UpdateTracker::onRequestEnds(const Logged& message) {
  const bool succeeded = numberOf(argument(message, 1)) == 0;
  const std::string& module = argument(message, 2);
  Update* update = ofThread(message.threadId);
  Result result = succeeded ? Result::Updated : Result::ModuleFailed;
  std::string reason;
  if (update == nullptr) {
    // It never came to an update: the check refused, or there is no such module.
    const auto check = checks_.find(message.threadId);
    const bool checked = check != checks_.end() && check->second.module == module;
    result = checked && check->second.notNeeded ? Result::NotNeeded : Result::Refused;
    reason = checked ? check->second.reason : "";
    update = &begin(message, checked ? check->second.firmware : "");
  }
  update->module = module;
  update->caller = static_cast<int>(numberOf(argument(message, 0)));
  close(*update, message.threadId, message.time);
  end(*update, message.time, result, reason);
  checks_.erase(message.threadId);
}

// The checks were long ago by the time of a turn, and are no part of it.
void UpdateTracker::onRunBegins(const Logged& message) {
  runThread_ = message.threadId;
  checks_.erase(message.threadId);
}

void UpdateTracker::onRunEnds(const Logged& message) {
  if (Update* const last = ofThread(message.threadId)) {
    end(*last, message.time, Result::Refused, "");
  }
  current_.erase(message.threadId);
  runThread_.reset();
}

void UpdateTracker::finish(std::int64_t time, bool runsOn) {
  for (const std::size_t index : open_) {
    Update& update = updates_[index];
    update.span.end = std::max(update.span.end, update.result == Result::Running ? time : update.span.end);
    if (update.result == Result::Running) {
      update.result = runsOn ? Result::Running : Result::Interrupted;
    }
  }
  for (Update& update : updates_) {
    for (StageSpan& stage : update.stages) {
      if (stage.isOpen) {
        stage.span.end = std::max(stage.span.begin, time);
        stage.isOpen = false;
      }
    }
  }
}

}  // namespace fwmessages
