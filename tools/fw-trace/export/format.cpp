// SPDX-License-Identifier: Apache-2.0
#include "export/format.h"

namespace tracetool {

const ExportFormat* findFormat(std::string_view name) {
  for (const ExportFormat& format : kFormats) {
    if (name == format.name) {
      return &format;
    }
  }
  return nullptr;
}

std::vector<std::string> formatNames() {
  std::vector<std::string> names;
  for (const ExportFormat& format : kFormats) {
    names.emplace_back(format.name);
  }
  return names;
}

}  // namespace tracetool
