#include "timeline.h"

#include <algorithm>
#include <iterator>
#include <set>

#include "library-messages.h"

namespace tracetool {
namespace {

// A look of one module at its image: whether an update is needed.
struct Check {
  std::string module;
  std::string firmware;
  std::int64_t begin = 0;
  std::string reason;
  bool notNeeded = false;
};

bool endsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// Goes through the messages of one process and keeps what is under way.
class Walk {
 public:
  Walk(const TraceFile& traced, std::vector<Update>& all) : file_(traced), updates_(all) {}

  void take(const Message& message);
  void finish(std::int64_t last);

 private:
  using Handler = void (Walk::*)(const Message&);
  struct Step {
    const char* format;
    std::size_t values;
    Handler handler;
  };
  static const Step kSteps[];

  void onNeedTry(const Message& message);
  void onUpdateTime(const Message& message);
  void onUpdateTry(const Message& message);
  void onUpdateStart(const Message& message);
  void onSucceeded(const Message& message);
  void onFailed(const Message& message);
  void onRunProcess(const Message& message);
  void onRequestEnds(const Message& message);
  void onNotNeeded(const Message& message);
  void onNoLongerNeeded(const Message& message);
  void onMaybeTimedOut(const Message& message);
  void onError(const Message& message);

  Update& begin(const Message& message, const std::string& firmware);
  Update* ofThread(std::uint32_t thread);
  Update* waitingFor(const std::string& firmware);
  void end(Update& update, std::int64_t time, Result result, const std::string& reason);
  void open(Update& update, Stage stage, const Message& message);
  void close(Update& update, std::uint32_t thread, std::int64_t time);
  void leaveModule(const Message& message, Result result, const std::string& reason);

  const TraceFile& file_;
  std::vector<Update>& updates_;
  std::map<std::uint32_t, Check> checks_;         // by thread
  std::map<std::uint32_t, std::size_t> current_;  // by thread: asking or working
  std::set<std::size_t> openUpdates_;
};

const Walk::Step Walk::kSteps[] = {
    {MESSAGE_CHECK_BEGINS, 2, &Walk::onNeedTry},
    {MESSAGE_LOCK_WANTED, 2, &Walk::onUpdateTime},
    {MESSAGE_LOCK_TAKEN, 1, &Walk::onUpdateTry},
    {MESSAGE_WRITE_BEGINS, 1, &Walk::onUpdateStart},
    {MESSAGE_WRITE_SUCCEEDED, 1, &Walk::onSucceeded},
    {MESSAGE_WRITE_FAILED, 3, &Walk::onFailed},
    {MESSAGE_PROCEDURE_BEGINS, 1, &Walk::onRunProcess},
    {MESSAGE_PROCEDURE_FAILED, 2, &Walk::onFailed},
    {MESSAGE_REQUEST_ENDS, 3, &Walk::onRequestEnds},
    {MESSAGE_NOT_NEEDED, 2, &Walk::onNotNeeded},
    {MESSAGE_NOT_NEEDED_ANY_MORE, 1, &Walk::onNoLongerNeeded},
    {MESSAGE_TIMED_OUT, 1, &Walk::onMaybeTimedOut},
};

void Walk::take(const Message& message) {
  const auto* const step = std::find_if(std::begin(kSteps), std::end(kSteps), [&message](const Step& known) {
    return message.format == known.format && message.values.size() == known.values;
  });
  if (step != std::end(kSteps)) {
    (this->*step->handler)(message);
  } else if (message.format.rfind("Error", 0) == 0) {
    onError(message);
  }
}

Update& Walk::begin(const Message& message, const std::string& firmware) {
  Update update;
  update.file = &file_;
  update.firmware = firmware;
  update.threadId = message.threadId;
  update.span = {message.time, message.time};
  const auto check = checks_.find(message.threadId);
  // In an update of all the check was long ago and is no part of it.
  if (check != checks_.end() && check->second.firmware == firmware) {
    update.module = check->second.module;
    update.span.begin = check->second.begin;
    update.stages.push_back({Stage::Check, message.threadId, {check->second.begin, message.time}});
    checks_.erase(check);
  }
  updates_.push_back(std::move(update));
  current_[message.threadId] = updates_.size() - 1;
  openUpdates_.insert(updates_.size() - 1);
  return updates_.back();
}

Update* Walk::ofThread(std::uint32_t thread) {
  const auto found = current_.find(thread);
  return found == current_.end() || openUpdates_.count(found->second) == 0 ? nullptr
                                                                           : &updates_[found->second];
}

bool isOpen(const StageSpan& stage) {
  return stage.span.end == 0;
}

// The request that this firmware's worker belongs to.
Update* Walk::waitingFor(const std::string& firmware) {
  for (const std::size_t index : openUpdates_) {
    Update& update = updates_[index];
    if (update.firmware == firmware && !update.stages.empty() && isOpen(update.stages.back()) &&
        update.stages.back().stage == Stage::WaitForLock) {
      return &update;
    }
  }
  return nullptr;
}

void Walk::open(Update& update, Stage stage, const Message& message) {
  update.stages.push_back({stage, message.threadId, {message.time, 0}});
  update.span.end = std::max(update.span.end, message.time);
}

void Walk::close(Update& update, std::uint32_t thread, std::int64_t time) {
  for (StageSpan& stage : update.stages) {
    if (stage.threadId == thread && isOpen(stage)) {
      stage.span.end = time;
    }
  }
}

void Walk::end(Update& update, std::int64_t time, Result result, const std::string& reason) {
  update.span.end = time;
  if (update.result == Result::Running) {
    update.result = result;
  }
  if (update.reason.empty() && update.result != Result::Updated) {
    update.reason = reason;
  }
  const auto index = static_cast<std::size_t>(&update - updates_.data());
  openUpdates_.erase(index);
}

void Walk::onNeedTry(const Message& message) {
  checks_[message.threadId] = {message.values[0].text, message.values[1].text, message.time, "", false};
}

void Walk::onUpdateTime(const Message& message) {
  Update* const before = ofThread(message.threadId);
  // In an update of all nothing says that the module before is done.
  if (before != nullptr) {
    end(*before, message.time, Result::Refused, "");
  }
  open(begin(message, message.values[0].text), Stage::WaitForLock, message);
}

void Walk::onUpdateTry(const Message& message) {
  const std::string& firmware = message.values[0].text;
  Update* update = waitingFor(firmware);
  if (update == nullptr) {
    update = &begin(message, firmware);
  }
  close(*update, update->threadId, message.time);
  current_[message.threadId] = static_cast<std::size_t>(update - updates_.data());
  open(*update, Stage::Prepare, message);
}

void Walk::onUpdateStart(const Message& message) {
  Update* update = ofThread(message.threadId);
  // A package from a USB drive begins with this message.
  if (update == nullptr) {
    update = &begin(message, message.values[0].text);
  }
  close(*update, message.threadId, message.time);
  open(*update, Stage::InModule, message);
}

void Walk::leaveModule(const Message& message, Result result, const std::string& reason) {
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
}

void Walk::onSucceeded(const Message& message) {
  leaveModule(message, Result::Updated, "");
}

void Walk::onFailed(const Message& message) {
  leaveModule(message, Result::ModuleFailed, message.text);
}

void Walk::onRunProcess(const Message& message) {
  open(begin(message, message.values[0].text), Stage::InModule, message);
}

void Walk::onNotNeeded(const Message& message) {
  const auto check = checks_.find(message.threadId);
  if (check != checks_.end()) {
    check->second.notNeeded = true;
    check->second.reason = message.text;
  }
}

void Walk::onNoLongerNeeded(const Message& message) {
  if (ofThread(message.threadId) != nullptr) {
    leaveModule(message, Result::NotNeeded, message.text);
  }
}

void Walk::onMaybeTimedOut(const Message& message) {
  Update* const update = ofThread(message.threadId);
  if (update == nullptr || message.function != "update_timeout_wrapper" ||
      !endsWith(message.text, fwmessages::kTimedOutSuffix)) {
    return;
  }
  close(*update, message.threadId, message.time);
  update->result = update->result == Result::Running ? Result::TimedOut : update->result;
  update->reason = message.text;
  update->span.end = message.time;
}

// The first reason counts for a request, the worker's as well as the check's.
void Walk::onError(const Message& message) {
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

void Walk::onRequestEnds(const Message& message) {
  const auto state = static_cast<int>(message.values[1].number);
  Update* update = ofThread(message.threadId);
  Result result = state == 0 ? Result::Updated : Result::ModuleFailed;
  std::string reason;
  if (update == nullptr) {
    // It never came to an update: the check refused, or there is no such module.
    const auto check = checks_.find(message.threadId);
    const bool checked = check != checks_.end() && check->second.module == message.values[2].text;
    result = checked && check->second.notNeeded ? Result::NotNeeded : Result::Refused;
    reason = checked ? check->second.reason : "";
    update = &begin(message, checked ? check->second.firmware : "");
  }
  update->module = message.values[2].text;
  update->caller = static_cast<int>(message.values[0].number);
  close(*update, message.threadId, message.time);
  end(*update, message.time, result, reason);
  checks_.erase(message.threadId);
}

// What no message ended: it runs, or its process is gone.
void Walk::finish(std::int64_t last) {
  for (const std::size_t index : openUpdates_) {
    Update& update = updates_[index];
    update.span.end = std::max(update.span.end, update.result == Result::Running ? last : update.span.end);
    if (update.result == Result::Running) {
      update.result = file_.alive ? Result::Running : Result::Interrupted;
    }
  }
  for (Update& update : updates_) {
    for (StageSpan& stage : update.stages) {
      if (update.file == &file_ && isOpen(stage)) {
        stage.span.end = std::max(stage.span.begin, last);
      }
    }
  }
}

// The library names of firmware, from the checks of the whole timeline.
void nameModules(Timeline& timeline) {
  std::map<std::string, std::string> modules;
  for (const Entry& entry : timeline.entries) {
    if (entry.message.format == MESSAGE_CHECK_BEGINS && entry.message.values.size() == 2) {
      modules[entry.message.values[1].text] = entry.message.values[0].text;
    }
  }
  for (Update& update : timeline.updates) {
    if (update.module.empty() && modules.count(update.firmware) > 0) {
      update.module = modules[update.firmware];
    }
  }
}

// A worker takes the firmware's name, which no record tells while it lives.
void nameWorkers(Timeline& timeline) {
  for (const Update& update : timeline.updates) {
    for (const StageSpan& stage : update.stages) {
      if (stage.threadId != update.threadId && !update.firmware.empty()) {
        timeline.threadNames[{update.file, stage.threadId}] = update.firmware;
      }
    }
  }
}

}  // namespace

const char* nameOf(Result result) {
  constexpr const char* kNames[] = {"updated",   "not needed", "refused",    "module failed",
                                    "timed out", "running",    "interrupted"};
  return kNames[static_cast<std::size_t>(result)];
}

const char* nameOf(Stage stage) {
  constexpr const char* kNames[] = {"check", "wait for the lock", "prepare, CRC", "in the module"};
  return kNames[static_cast<std::size_t>(stage)];
}

std::optional<std::int64_t> Update::timeIn(Stage stage) const {
  std::optional<std::int64_t> total;
  for (const StageSpan& part : stages) {
    if (part.stage == stage) {
      total = total.value_or(0) + part.span.length();
    }
  }
  return total;
}

Timeline timelineOf(std::vector<TraceFile>& files) {
  Timeline timeline;
  MessageRoom room;
  for (TraceFile& file : files) {
    Walk walk(file, timeline.updates);
    std::optional<std::int64_t> last;
    for (Message& message : messagesOf(file.trace, room)) {
      walk.take(message);
      last = message.time;
      timeline.entries.push_back({&file, std::move(message)});
    }
    if (last) {
      walk.finish(*last);
    }
    for (const auto& [id, name] : threadNames(file.trace)) {
      timeline.threadNames[{&file, id}] = name;
    }
  }
  nameModules(timeline);
  nameWorkers(timeline);
  std::stable_sort(timeline.updates.begin(), timeline.updates.end(),
                   [](const Update& a, const Update& b) { return a.span.begin < b.span.begin; });
  std::stable_sort(timeline.entries.begin(), timeline.entries.end(),
                   [](const Entry& a, const Entry& b) { return a.message.time < b.message.time; });
  return timeline;
}

}  // namespace tracetool
