#include "export-format.h"

#include "export-html.h"
#include "export-json.h"
#include "export-perfetto.h"

namespace tracetool {
namespace {

constexpr ExportFormat kFormats[] = {
    {"json", exportJson},
    {"perfetto", exportPerfetto},
    {"html", exportHtml},
};

}  // namespace

const ExportFormat* findFormat(std::string_view name) {
  for (const ExportFormat& format : kFormats) {
    if (name == format.name) {
      return &format;
    }
  }
  return nullptr;
}

}  // namespace tracetool
