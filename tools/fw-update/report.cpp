// SPDX-License-Identifier: Apache-2.0
#include "report.h"

namespace tool {

frame::Report reportOf(const Finding& finding) {
  return frame::Report(finding.outcome, finding.message, finding.remedy);
}

void addTo(Json::Value& members, const Finding& finding, const char* sentence) {
  members["outcome"] = infoOf(finding.outcome).id;
  members[sentence] = finding.message;
  if (!finding.remedy.empty()) {
    members["remedy"] = finding.remedy;
  }
}

std::string textIn(const Json::Value& members, const char* name) {
  return members[name].asString();
}

Json::Value toJson(const LogMessages& log) {
  Json::Value lines(Json::arrayValue);
  for (const LogMessage& message : log) {
    if (message.format.empty()) {
      continue;  // a module's own
    }
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
