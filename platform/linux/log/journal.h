// SPDX-License-Identifier: Apache-2.0
// The system's journal. No state of its own; any thread.
#ifndef PLATFORM_LINUX_JOURNAL_H
#define PLATFORM_LINUX_JOURNAL_H

#include <string>
#include <string_view>

namespace fwplatform {

// Where in the program a message comes from; empty and 0 when it does not say.
struct CodePlace {
  std::string file;
  std::string function;
  int line = 0;
};

// True when a journal listens on this machine.
bool journalIsThere();

// One entry, whole or not at all. Returns 0, or a negative errno value.
int writeToJournal(int syslogPriority, std::string_view identifier, const CodePlace& place,
                   std::string_view message);

}  // namespace fwplatform

#endif
