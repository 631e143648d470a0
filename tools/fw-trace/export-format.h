// The formats that a trace can be exported to, as a table.
#ifndef FW_TRACE_EXPORT_FORMAT_H
#define FW_TRACE_EXPORT_FORMAT_H

#include <string>
#include <string_view>

namespace tracetool {

struct Timeline;

struct ExportFormat {
  const char* name;
  std::string (*write)(const Timeline& timeline);
};

// Null when there is none of this name.
const ExportFormat* findFormat(std::string_view name);

}  // namespace tracetool

#endif
