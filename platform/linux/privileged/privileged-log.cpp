// SPDX-License-Identifier: Apache-2.0
#include "privileged/privileged-log.h"

#include <algorithm>
#include <cstddef>

#include "dlog.h"

namespace fwplatform {
namespace {

struct EndForm {
  RequestEnd end;
  int priority;
  unsigned mostLines;  // of one user within one span
};

// What an update of all modules of a set does comes to some hundred requests.
constexpr EndForm kEnds[] = {
    {RequestEnd::Done, DLOG_INFO_PRIORITY, 500},
    {RequestEnd::Failed, DLOG_WARN_PRIORITY, 500},
    {RequestEnd::Refused, DLOG_WARN_PRIORITY, 20},
    {RequestEnd::Gone, DLOG_WARN_PRIORITY, 20},
};

const EndForm& formOf(RequestEnd end) {
  return *std::find_if(std::begin(kEnds), std::end(kEnds) - 1,
                       [end](const EndForm& form) { return form.end == end; });
}

}  // namespace

std::string describe(const PrivilegedCaller& caller) {
  return "pid " + std::to_string(caller.pid) + ", uid " + std::to_string(caller.uid) + ", gid " +
         std::to_string(caller.gid);
}

void logRequest(RequestEnd end, const PrivilegedCaller&, const std::string& text) {
  __dlog_print(2, formOf(end).priority, "FWUPDATE", "privileged: %s", text.c_str());
}

LimitedRequestLog::Key LimitedRequestLog::keyFor(RequestEnd end, uid_t user) const {
  const Key own(end, user);
  if (spans_.count(own) != 0) {
    return own;
  }
  const auto ofThisEnd = std::count_if(spans_.begin(), spans_.end(),
                                       [end](const auto& entry) { return entry.first.first == end; });
  return static_cast<std::size_t>(ofThisEnd) < kMostUsers ? own : Key(end, std::nullopt);
}

void LimitedRequestLog::log(RequestEnd end, const PrivilegedCaller& caller, const std::string& text) {
  tellWhatIsDue();
  const auto [entry, isNew] = spans_.try_emplace(keyFor(end, caller.uid));
  Span& span = entry->second;
  if (isNew) {
    span.end = now_() + kSpan;
  }
  if (span.written < formOf(end).mostLines) {
    ++span.written;
    write_(end, caller, text);
    return;
  }
  ++span.leftOut;
  span.lastCaller = caller;
  span.last = text;
}

void LimitedRequestLog::tell(const Key& key, const Span& span) {
  if (span.leftOut == 0) {
    return;
  }
  const std::string who = key.second ? "uid " + std::to_string(*key.second) : "further users";
  write_(key.first, span.lastCaller,
         std::to_string(span.leftOut) + " more like this of " + who + " within " +
             std::to_string(kSpan.count()) + " seconds, the last: " + span.last);
}

void LimitedRequestLog::tellWhatIsDue() {
  const Clock::time_point now = now_();
  for (auto entry = spans_.begin(); entry != spans_.end();) {
    if (entry->second.end > now) {
      ++entry;
      continue;
    }
    tell(entry->first, entry->second);
    entry = spans_.erase(entry);
  }
}

void LimitedRequestLog::tellAll() {
  for (const auto& [key, span] : spans_) {
    tell(key, span);
  }
  spans_.clear();
}

std::optional<LimitedRequestLog::Clock::time_point> LimitedRequestLog::nextDue() const {
  std::optional<Clock::time_point> next;
  for (const auto& [key, span] : spans_) {
    if (span.leftOut != 0 && (!next || span.end < *next)) {
      next = span.end;
    }
  }
  return next;
}

}  // namespace fwplatform
