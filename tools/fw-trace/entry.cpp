#include "entry.h"

#include <algorithm>

namespace tracetool {

std::vector<Entry> entriesOf(std::vector<TraceFile>& files) {
  std::vector<Entry> entries;
  MessageRoom room;
  for (TraceFile& file : files) {
    for (Message& message : messagesOf(file.trace, room)) {
      entries.push_back({&file, std::move(message)});
    }
  }
  std::stable_sort(entries.begin(), entries.end(),
                   [](const Entry& a, const Entry& b) { return a.message.time < b.message.time; });
  return entries;
}

}  // namespace tracetool
