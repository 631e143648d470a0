#include "report.h"

namespace tool {

frame::Report answerOf(const Report& report) {
  frame::Report answer(report.finding.outcome, report.finding.message, report.finding.remedy);
  answer.details = report.details;
  answer.body = report.body;
  answer.endsAtOnce = report.moduleRuns;
  return answer;
}

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

}  // namespace tool
