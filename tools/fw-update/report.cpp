#include "report.h"

#include <unistd.h>

#include <iostream>
#include <string_view>

#include "terminal.h"

namespace tool {
namespace {

constexpr std::string_view kFailurePrefix = "fw-update: ";

Json::Value toJson(const LogMessages& log) {
  Json::Value lines(Json::arrayValue);
  for (const LogMessage& message : log) {
    Json::Value line;
    line["priority"] = message.priority;
    line["file"] = message.file;
    line["function"] = message.function;
    line["line"] = message.line;
    line["text"] = message.text;
    lines.append(line);
  }
  return lines;
}

bool isFailure(Outcome outcome) {
  return infoOf(outcome).exitCode != 0 && outcome != Outcome::NothingToDo;
}

}  // namespace

Json::Value toJson(const Report& report) {
  const OutcomeInfo& info = infoOf(report.finding.outcome);
  Json::Value document = report.details;
  document["command"] = report.command;
  document["ok"] = info.exitCode == 0;
  document["outcome"] = info.id;
  document["exitCode"] = info.exitCode;
  document["message"] = report.finding.message;
  if (!report.finding.remedy.empty()) {
    document["remedy"] = report.finding.remedy;
  }
  return document;
}

Json::Value toJson(const Report& report, const LogMessages& log) {
  Json::Value document = toJson(report);
  document["log"] = toJson(log);
  return document;
}

void printText(const Report& report) {
  const Finding& finding = report.finding;
  std::cout << report.body << std::flush;
  if (isFailure(finding.outcome)) {
    const std::size_t width = terminalWidth(STDERR_FILENO);
    const std::string text = wrapped(std::string(kFailurePrefix) + finding.message, width);
    std::cerr << coloured(std::string(kFailurePrefix), Colour::Red, STDERR_FILENO)
              << text.substr(kFailurePrefix.size()) << '\n';
    if (!finding.remedy.empty()) {
      std::cerr << wrapped(finding.remedy, width) << '\n';
    }
    return;
  }
  if (finding.outcome == Outcome::Ok && !report.body.empty()) {
    return;
  }
  const Colour colour = finding.outcome == Outcome::NothingToDo ? Colour::Bold : Colour::Green;
  const std::string text = wrapped(finding.message, terminalWidth(STDOUT_FILENO));
  std::cout << coloured(text, colour, STDOUT_FILENO) << std::endl;
}

}  // namespace tool
