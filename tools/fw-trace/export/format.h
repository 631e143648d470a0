// SPDX-License-Identifier: Apache-2.0
// The formats that a timeline can be exported to, as a table; each is a file beside this
// one.
#ifndef FW_TRACE_EXPORT_FORMAT_H
#define FW_TRACE_EXPORT_FORMAT_H

#include <json/value.h>

#include <string>
#include <string_view>
#include <vector>

#include "timeline.h"

namespace tracetool {

struct ExportFormat {
  const char* name;
  std::string (*write)(const Timeline& timeline);
};

// Messages, and updates with their stages.
std::string exportJson(const Timeline& timeline);
// The Trace Event Format (JSON), which the Perfetto viewer opens: one track a thread,
// updates and their stages as slices, messages as instants.
std::string exportPerfetto(const Timeline& timeline);
// One HTML file that needs nothing else: the library that draws it is packed into it.
std::string exportHtml(const Timeline& timeline);

inline constexpr ExportFormat kFormats[] = {
    {"json", exportJson},
    {"perfetto", exportPerfetto},
    {"html", exportHtml},
};

// Null when there is none of this name.
const ExportFormat* findFormat(std::string_view name);
std::vector<std::string> formatNames();

// What exportJson and the page show.
Json::Value jsonOf(const Timeline& timeline);

}  // namespace tracetool

#endif
