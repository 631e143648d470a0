// SPDX-License-Identifier: Apache-2.0
#include "record/taken-traces.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

#include "callers.h"
#include "dlog.h"
#include "library/log-meanings.h"
#include "library/traced-message.h"
#include "message.h"
#include "outcomes.h"
#include "trace-store.h"
#include "trace/trace-settings.h"
#include "update-tracker.h"

namespace tool {
namespace {

using fwmessages::Result;
using fwmessages::Update;

constexpr std::int64_t kNanoseconds = 1000000;  // in a millisecond
constexpr char kWay[] = "library";

// The project's own commands look at modules without updating anything, and fw-update keeps the
// history itself where it may.
bool keepsItsOwn(const tracetool::TraceFile& file, uid_t owner) {
  const std::string& name = file.trace.processName;
  const bool isCommand = name.rfind("fw-", 0) == 0 && name != "fw-update";
  return isCommand || (name == "fw-update" && owner == geteuid());
}

std::string userName(uid_t number) {
  const passwd* const user = getpwuid(number);
  return user != nullptr ? user->pw_name : std::to_string(number);
}

std::string callerName(std::optional<int> type) {
  for (const fwcallers::Caller& caller : fwcallers::kCallers) {
    if (type && caller.name != nullptr && caller.fixedData == nullptr && caller.type == *type) {
      return caller.name;
    }
  }
  return "";
}

// Its own, and those of its check, which the thread that asked had before.
LogMessages messagesOf(const Update& update, const LogMessages& log) {
  LogMessages own;
  for (std::size_t number = 0; number < log.size(); ++number) {
    const LogMessage& message = log[number];
    const std::int64_t time = std::chrono::nanoseconds(message.time.time_since_epoch()).count();
    const bool isBeside = message.thread == static_cast<long>(update.threadId) && time >= update.span.begin &&
                          time <= update.ended.value_or(update.span.end);
    if (isBeside || std::count(update.messages.begin(), update.messages.end(), number) != 0) {
      own.push_back(message);
    }
  }
  return own;
}

void explain(history::Entry& entry, const Update& update, const LogMessages& log) {
  const LogMessages own = messagesOf(update, log);
  const Finding finding = explainUpdate(update.result == Result::Updated ? 0 : -1, own, update.name());
  entry.outcome = infoOf(finding.outcome).id;
  entry.sentence = finding.message;
  entry.remedy = finding.remedy;
}

history::Entry entryOf(const Update& update, const LogMessages& log, const std::string& user) {
  history::Entry entry;
  entry.began = update.span.begin / kNanoseconds;
  entry.way = kWay;
  entry.user = user;
  entry.module = update.name();
  entry.firmware = update.firmware;
  entry.caller = callerName(update.caller);
  if (update.result == Result::Interrupted) {
    entry = history::interrupted(entry);
  } else {
    entry.ended = update.ended.value_or(update.span.end) / kNanoseconds;
    explain(entry, update, log);
  }
  return entry;
}

bool isOver(const Update& update, bool isAlive) {
  return !update.name().empty() && (!isAlive || update.ended);
}

history::Traced tracedOf(tracetool::TraceFile& file, const std::string& user) {
  history::Traced traced;
  traced.name = std::to_string(file.trace.processId) + "-" + std::to_string(file.trace.start);
  LogMessages log;
  fwmessages::UpdateTracker tracker;
  for (const tracetool::Message& message : tracetool::messagesOf(file.trace)) {
    log.push_back(messageOf(message));
    tracker.take(loggedOf(log.back()));
  }
  if (!log.empty()) {
    tracker.finish(std::chrono::nanoseconds(log.back().time.time_since_epoch()).count(), file.alive);
  }
  for (const Update& update : tracker.updates()) {
    if (isOver(update, file.alive)) {
      traced.updates.emplace_back(update.span.begin, entryOf(update, log, user));
    }
  }
  return traced;
}

}  // namespace

void takeTraces(history::History& history) {
  if (!history.mayBeWritten()) {
    return;
  }
  std::string unreadable;
  std::vector<history::Traced> all;
  for (tracetool::TraceFile& file :
       tracetool::loadTraces(fwplatform::trace::settingsFromEnvironment().directory, unreadable)) {
    struct stat status = {};
    if (file.problem.empty() && lstat(file.path.c_str(), &status) == 0 && !keepsItsOwn(file, status.st_uid)) {
      all.push_back(tracedOf(file, userName(status.st_uid)));
    }
  }
  history.takeIn(all);
}

}  // namespace tool
