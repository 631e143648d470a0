// SPDX-License-Identifier: Apache-2.0
#include "job.h"

#include <algorithm>
#include <iterator>

#include "json-text.h"
#include "printable-text.h"
#include "text-layout.h"

namespace updated {
namespace {

constexpr struct {
  Kind kind;
  const char* name;
} kKinds[] = {
    {Kind::Update, "update"},      {Kind::UpdateAll, "update-all"},
    {Kind::UsbApply, "usb-apply"}, {Kind::UsbEstimate, "usb-estimate"},
    {Kind::Download, "download"},
};

constexpr struct {
  State state;
  const char* name;
} kStates[] = {
    {State::Asking, "asking"},     {State::Queued, "queued"},
    {State::Checking, "checking"}, {State::WaitingForLock, "waiting-for-lock"},
    {State::Updating, "updating"}, {State::Verifying, "verifying"},
    {State::Done, "done"},
};

constexpr int kWhole = 100;
constexpr char kOverdue[] = "It is at work, and over the expected time.";

// What an event says of the state; an event that says nothing of it has no row.
constexpr struct {
  const char* event;
  State state;
  const char* sentence;
} kEventStates[] = {
    {"start", State::Checking, "It is being looked at."},
    {"module-start", State::Checking, "It is being looked at."},
    {"waiting", State::WaitingForLock, "It waits for another update to end."},
    {"progress", State::Updating, "It is at work."},
    {"overdue", State::Updating, kOverdue},
    {"verifying", State::Verifying, "It is over, and the version is being looked at."},
    {"module-end", State::Checking, "It is being looked at."},
};

constexpr struct {
  const char* property;
  bool (*differs)(const Job& one, const Job& other);
} kProperties[] = {
    {"Module", [](const Job& one, const Job& other) { return one.module != other.module; }},
    {"State", [](const Job& one, const Job& other) { return one.state != other.state; }},
    {"Percent", [](const Job& one, const Job& other) { return one.percent != other.percent; }},
    {"Expected",
     [](const Job& one, const Job& other) { return one.expectedSeconds != other.expectedSeconds; }},
    {"Overdue", [](const Job& one, const Job& other) { return one.isOverdue != other.isOverdue; }},
    {"Outcome", [](const Job& one, const Job& other) { return one.outcome != other.outcome; }},
    {"ExitCode", [](const Job& one, const Job& other) { return one.exitCode != other.exitCode; }},
    {"Sentence", [](const Job& one, const Job& other) { return one.sentence != other.sentence; }},
    {"Remedy", [](const Job& one, const Job& other) { return one.remedy != other.remedy; }},
    {"VersionBefore",
     [](const Job& one, const Job& other) { return one.versionBefore != other.versionBefore; }},
    {"VersionAfter", [](const Job& one, const Job& other) { return one.versionAfter != other.versionAfter; }},
    {"Document", [](const Job& one, const Job& other) { return one.document != other.document; }},
};

void setText(std::string& text, const Json::Value& object, const char* member) {
  if (object[member].isString()) {
    text = textIn(object, member);
  }
}

void setNumber(int& number, const Json::Value& object, const char* member) {
  if (object[member].isInt()) {
    number = object[member].asInt();
  }
}

// A module may say anything; what is no part of the whole is not believed.
void setPercent(int& percent, const Json::Value& value) {
  if (value.isInt() && value.asInt() >= 0 && value.asInt() <= kWhole) {
    percent = value.asInt();
  }
}

void setExpected(Job& job, const Json::Value& object) {
  if (object["expectedSeconds"].isUInt()) {
    job.expectedSeconds = object["expectedSeconds"].asUInt();
  }
}

void takeResult(Job& job, Json::Value result) {
  result.removeMember("event");
  job.state = State::Done;
  job.ended = Job::Clock::now();
  setText(job.outcome, result, "outcome");
  setText(job.sentence, result, "message");
  job.remedy.clear();
  setText(job.remedy, result, "remedy");
  setText(job.versionBefore, result, "versionBefore");
  setText(job.versionAfter, result, "versionAfter");
  setNumber(job.exitCode, result, "exitCode");
  setExpected(job, result);
  if (job.exitCode == 0) {
    job.percent = kWhole;
  }
  job.module = job.request.module;
  job.document = base::validText(tool::onOneLine(result));
}

}  // namespace

const char* nameOf(Kind kind) {
  return kKinds[static_cast<std::size_t>(kind)].name;
}

const char* nameOf(State state) {
  return kStates[static_cast<std::size_t>(state)].name;
}

std::optional<Kind> kindOf(const std::string& name) {
  const auto* const row = std::find_if(std::begin(kKinds), std::end(kKinds),
                                       [&name](const auto& one) { return name == one.name; });
  return row == std::end(kKinds) ? std::nullopt : std::optional<Kind>(row->kind);
}

double Job::elapsedSeconds() const {
  if (!began) {
    return 0;
  }
  return std::chrono::duration<double>(ended.value_or(Clock::now()) - *began).count();
}

void take(Job& job, const Json::Value& event) {
  std::string name;
  setText(name, event, "event");
  if (name == "result") {
    takeResult(job, event);
    return;
  }
  for (const auto& row : kEventStates) {
    if (name == row.event) {
      job.state = row.state;
      job.isOverdue = name == "overdue" || (job.isOverdue && name == "progress");
      job.sentence = job.isOverdue ? kOverdue : row.sentence;
    }
  }
  setText(job.module, event, "module");
  setPercent(job.percent, event[event.isMember("totalPercent") ? "totalPercent" : "percent"]);
  setExpected(job, event);
}

void end(Job& job, const std::string& outcome, int exitCode, const std::string& sentence,
         const std::string& remedy) {
  Json::Value result;
  result["command"] = nameOf(job.request.kind);
  result["ok"] = false;
  result["outcome"] = outcome;
  result["exitCode"] = exitCode;
  result["message"] = sentence;
  if (!remedy.empty()) {
    result["remedy"] = remedy;
  }
  if (!job.request.module.empty()) {
    result["module"] = job.request.module;
  }
  takeResult(job, result);
}

std::vector<std::string> changes(const Job& before, const Job& after) {
  std::vector<std::string> names;
  for (const auto& row : kProperties) {
    if (row.differs(before, after)) {
      names.emplace_back(row.property);
    }
  }
  return names;
}

}  // namespace updated
