// SPDX-License-Identifier: Apache-2.0
#include "log/journal.h"

#include <sys/stat.h>
#include <sys/uio.h>

// The place of the message is not that of this file.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include <vector>

namespace fwplatform {
namespace {

constexpr char kSocket[] = "/run/systemd/journal/socket";

void addField(std::vector<std::string>& fields, const char* name, std::string_view value) {
  fields.emplace_back(name);
  fields.back().append("=").append(value);
}

}  // namespace

bool journalIsThere() {
  struct stat status = {};
  return stat(kSocket, &status) == 0 && S_ISSOCK(status.st_mode);
}

int writeToJournal(int syslogPriority, std::string_view identifier, const CodePlace& place,
                   std::string_view message) {
  std::vector<std::string> fields;
  addField(fields, "MESSAGE", message);
  addField(fields, "PRIORITY", std::to_string(syslogPriority));
  addField(fields, "SYSLOG_IDENTIFIER", identifier);
  if (place.line != 0) {
    addField(fields, "CODE_FILE", place.file);
    addField(fields, "CODE_FUNC", place.function);
    addField(fields, "CODE_LINE", std::to_string(place.line));
  }
  std::vector<iovec> parts;
  parts.reserve(fields.size());
  for (std::string& field : fields) {
    parts.push_back({field.data(), field.size()});
  }
  return sd_journal_sendv(parts.data(), static_cast<int>(parts.size()));
}

}  // namespace fwplatform
