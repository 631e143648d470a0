// SPDX-License-Identifier: Apache-2.0
// What the modules of the soak write while they update, and what it proves. A line is
// one append, so the lines of several processes stand in the order of their writes.
#ifndef TESTS_SOAK_JOURNAL_H
#define TESTS_SOAK_JOURNAL_H

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace soak {

// begin and end by a module, while the update lock is held; killed by the program that
// killed the process, once it is gone and before the lock is recovered.
void journal(const char* event, pid_t process);

// The process whose update is under way, by the last line; 0: none.
pid_t updatingProcess();

struct JournalSummary {
  std::size_t begun = 0;
  std::size_t ended = 0;
  std::size_t cutOff = 0;     // by a kill
  std::size_t atOnce = 0;     // the most updates that were under way together
  std::size_t malformed = 0;  // lines that do not fit together
  std::string firstOverlap;   // empty when there was none
};

JournalSummary readJournal();

}  // namespace soak

#endif
