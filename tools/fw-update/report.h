// What a command found, on its way to the frame that puts it out. A plain value.
#ifndef FW_UPDATE_TOOL_REPORT_H
#define FW_UPDATE_TOOL_REPORT_H

#include <json/value.h>

#include <string>

#include "frame/report.h"
#include "library/library-log.h"
#include "outcomes.h"
#include "text-layout.h"

namespace tool {

struct Report {
  Finding finding;
  Json::Value details{Json::objectValue};  // the command's own JSON members
  std::string body;                        // the command's own text, whole lines
  bool moduleRuns = false;                 // a thread is still inside the module
};

frame::Report answerOf(const Report& report);

// The library's messages, for a document.
Json::Value toJson(const LogMessages& log);

}  // namespace tool

#endif
