// SPDX-License-Identifier: Apache-2.0
// fw-update history, fw-update history show
#include "history.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <iterator>
#include <optional>

#include "commands.h"
#include "commands/texts.h"
#include "record/taken-traces.h"
#include "report.h"
#include "terminal.h"
#include "time-text.h"

namespace tool {
namespace {

using history::Entry;

constexpr std::int64_t kNanoseconds = 1000000;  // in a millisecond
constexpr std::size_t kDayAndMinute = 16;       // characters of 2026-01-31 14:03
constexpr std::size_t kWidestName = 18;
constexpr char kNothing[] = "-";

struct Row {
  const char* title;
  std::string Entry::*text;
};

// What is shown of one entry, beside its times; what is empty is left out.
constexpr Row kRows[] = {
    {"Result", &Entry::outcome},
    {"What happened", &Entry::sentence},
    {"What to do", &Entry::remedy},
    {"Module", &Entry::module},
    {"Firmware", &Entry::firmware},
    {"Version before", &Entry::versionBefore},
    {"Version after", &Entry::versionAfter},
    {"Image", &Entry::image},
    {"Came from", &Entry::source},
    {"Checksum", &Entry::checksum},
    {"Signed by key", &Entry::key},
    {"Steps", &Entry::steps},
    {"Way", &Entry::way},
    {"Asked as", &Entry::caller},
    {"User", &Entry::user},
    {"The module said", &Entry::messages},
};

std::string timeOf(std::int64_t milliseconds) {
  return tracetool::dayAndTime(milliseconds * kNanoseconds);
}

std::optional<std::int64_t> millisecondsOf(const std::string& text) {
  const bool isDay = text.size() == 10 && text.find(':') == std::string::npos;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto time =
      tracetool::parseTime(isDay ? text + "T00:00" : text, std::chrono::nanoseconds(now).count());
  return time ? std::optional<std::int64_t>(*time / kNanoseconds) : std::nullopt;
}

std::string shortened(const std::string& name) {
  return name.size() <= kWidestName ? name : name.substr(0, kWidestName - 3) + "...";
}

std::string versionsOf(const Entry& entry) {
  if (entry.versionAfter.empty() || entry.versionAfter == entry.versionBefore) {
    return entry.versionBefore.empty() ? kNothing : entry.versionBefore;
  }
  return entry.versionBefore + " -> " + entry.versionAfter;
}

std::string nameOf(const Entry& entry) {
  return entry.module.empty() ? "(" + entry.way + ")" : shortened(entry.module);
}

std::string listOf(const std::vector<Entry>& entries) {
  std::vector<std::vector<std::string>> rows{{"NO", "BEGAN", "MODULE", "RESULT", "VERSION"}};
  for (const Entry& entry : entries) {
    rows.push_back({std::to_string(entry.number), timeOf(entry.began).substr(0, kDayAndMinute), nameOf(entry),
                    entry.outcome, versionsOf(entry)});
  }
  return table(rows, terminalWidth(STDOUT_FILENO));
}

std::string tookText(const Entry& entry) {
  return tracetool::spanText((*entry.ended - entry.began) * kNanoseconds);
}

std::string describe(const Entry& entry) {
  std::vector<std::vector<std::string>> rows{{"Number", std::to_string(entry.number)},
                                             {"Began", timeOf(entry.began)}};
  if (entry.ended) {
    rows.push_back({"Ended", timeOf(*entry.ended) + ", after " + tookText(entry)});
  }
  if (entry.run != 0) {
    rows.push_back({"Part of", "number " + std::to_string(entry.run)});
  }
  for (const Row& row : kRows) {
    if (!(entry.*row.text).empty()) {
      rows.push_back({row.title, entry.*row.text});
    }
  }
  return table(rows, terminalWidth(STDOUT_FILENO));
}

Json::Value toJson(const Entry& entry) {
  Json::Value value;
  value["number"] = static_cast<Json::Int64>(entry.number);
  value["began"] = static_cast<double>(entry.began) / 1000;
  if (entry.ended) {
    value["ended"] = static_cast<double>(*entry.ended) / 1000;
  }
  if (entry.run != 0) {
    value["run"] = static_cast<Json::Int64>(entry.run);
  }
  for (const history::Field& field : history::kFields) {
    if (!(entry.*field.text).empty()) {
      value[field.name] = entry.*field.text;
    }
  }
  return value;
}

Entry entryIn(const Json::Value& value) {
  const auto time = [&value](const char* member) { return std::llround(value[member].asDouble() * 1000); };
  Entry entry;
  entry.number = value["number"].asInt64();
  entry.began = time("began");
  if (value.isMember("ended")) {
    entry.ended = time("ended");
  }
  entry.run = value["run"].asInt64();
  for (const history::Field& field : history::kFields) {
    entry.*field.text = textIn(value, field.name);
  }
  return entry;
}

frame::Report reportOf(const history::Failure& failure) {
  if (failure.isDenied) {
    return reportOf(Finding{Outcome::NotPermitted, failure.what(), "Run the command as root."});
  }
  return reportOf(Finding{Outcome::Unexpected, failure.what(),
                          "Remove the file, or move it away; a new one is begun then."});
}

frame::Report reportOf(const std::vector<Entry>& entries, const std::string& damagedFile) {
  frame::Report report{Outcome::Ok};
  report.details["entries"] = Json::arrayValue;
  for (const Entry& entry : entries) {
    report.details["entries"].append(toJson(entry));
  }
  if (!damagedFile.empty()) {
    report.details["damaged"] = damagedFile;
  }
  report.body = historyText(report);
  return report;
}

frame::Report reportOf(const Entry& entry) {
  frame::Report report{Outcome::Ok};
  report.details["entry"] = toJson(entry);
  report.body = historyShowText(report);
  return report;
}

history::Filter filterOf(const Options& options) {
  history::Filter filter;
  filter.module = options.module;
  filter.failedOnly = options.failedOnly;
  filter.since = options.since.empty() ? 0 : millisecondsOf(options.since).value_or(0);
  return filter;
}

}  // namespace

std::string historyText(const frame::Report& report) {
  const Json::Value& details = report.details;
  if (!details.isMember("entries")) {
    return "";
  }
  std::vector<Entry> entries;
  std::transform(details["entries"].begin(), details["entries"].end(), std::back_inserter(entries), entryIn);
  std::string text = entries.empty() ? "The history has no such update.\n" : listOf(entries);
  if (details.isMember("damaged")) {
    text += "Not shown is what a damaged file holds: " + textIn(details, "damaged") + "\n";
  }
  return text;
}

std::string historyShowText(const frame::Report& report) {
  return report.details.isMember("entry") ? describe(entryIn(report.details["entry"])) : "";
}

std::string sinceProblem(const std::string& text) {
  return millisecondsOf(text) ? "" : "no time such as 2026-01-31, 2026-01-31T14:03 or 14:03";
}

frame::Report runHistory(const Options& options) {
  history::History all(history::readSettings().settings);
  takeTraces(all);
  try {
    const std::vector<Entry> entries = all.list(filterOf(options));
    return reportOf(entries, all.damagedFile());
  } catch (const history::Failure& failure) {
    return reportOf(failure);
  }
}

frame::Report runHistoryShow(const Options& options) {
  history::History all(history::readSettings().settings);
  try {
    const auto entry = all.find(options.number);
    return entry ? reportOf(*entry)
                 : reportOf(Finding{Outcome::NotKnown,
                                    "The history has no number " + std::to_string(options.number) + ".",
                                    "See which there are: fw-update history"});
  } catch (const history::Failure& failure) {
    return reportOf(failure);
  }
}

}  // namespace tool
