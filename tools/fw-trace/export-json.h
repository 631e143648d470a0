// A timeline as JSON: messages and updates with their stages.
#ifndef FW_TRACE_EXPORT_JSON_H
#define FW_TRACE_EXPORT_JSON_H

#include <json/value.h>

#include <string>

#include "timeline.h"

namespace tracetool {

Json::Value jsonOf(const Timeline& timeline);
std::string exportJson(const Timeline& timeline);

}  // namespace tracetool

#endif
