// What a command found, and how it is put out: as text for people or as one
// JSON document. A plain value, made by a command and printed once.
#ifndef FW_UPDATE_TOOL_REPORT_H
#define FW_UPDATE_TOOL_REPORT_H

#include <json/value.h>

#include <string>
#include <vector>

#include "library/library-log.h"
#include "outcomes.h"
#include "text-layout.h"

namespace tool {

struct Report {
  std::string command;
  Finding finding;
  Json::Value details{Json::objectValue};  // the command's own JSON members
  std::string body;                        // the command's own text, whole lines
  bool moduleRuns = false;                 // a thread is still inside the module
};

// The members that every document has, and the command's own.
Json::Value toJson(const Report& report);
// The same with the library's messages in "log".
Json::Value toJson(const Report& report, const LogMessages& log);

// Text for people: results on standard output, failures on standard error.
void printText(const Report& report);

}  // namespace tool

#endif
