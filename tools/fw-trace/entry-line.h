// SPDX-License-Identifier: Apache-2.0
// One message as one line for people or as one JSON object.
#ifndef FW_TRACE_ENTRY_LINE_H
#define FW_TRACE_ENTRY_LINE_H

#include <json/value.h>

#include <string>

#include "entry.h"

namespace tracetool {

// With its line feed; in colour when standard output is a terminal.
std::string lineOf(const Entry& entry);
Json::Value jsonOf(const Entry& entry);

}  // namespace tracetool

#endif
