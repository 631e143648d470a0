// SPDX-License-Identifier: Apache-2.0
// From what a command found to the report that the frame puts out: the last step of each
// command. Plain functions.
#ifndef FW_UPDATE_TOOL_REPORT_H
#define FW_UPDATE_TOOL_REPORT_H

#include <json/value.h>

#include "frame/report.h"
#include "library/library-log.h"
#include "outcomes.h"
#include "text-layout.h"

namespace tool {

frame::Report reportOf(const Finding& finding);

// A finding that is one of several: "outcome", "remedy" when there is one, and the sentence.
void addTo(Json::Value& members, const Finding& finding, const char* sentence = "message");

// A text or a number of a document, as text; empty when it has none.
std::string textIn(const Json::Value& members, const char* name);

// The library's messages, for a document.
Json::Value toJson(const LogMessages& log);

}  // namespace tool

#endif
