// SPDX-License-Identifier: Apache-2.0
// Takes what was handed over: copies it, checks the copy, and puts it where an update finds it.
// It is there whole and checked, or not at all, wherever this ends. May wait for what is read;
// one at a time.
#ifndef FW_UPDATED_TAKING_H
#define FW_UPDATED_TAKING_H

#include <set>
#include <string>

#include "hand-over.h"

namespace updated {

// Below it lies what is for one job each.
inline constexpr char kIncomingDirectory[] = "/var/lib/fw-updated/incoming";

struct Taken {
  std::string error;  // as on the bus; empty: it is in its place
  std::string sentence;
  std::string remedy;
  std::string folder;  // of what is for one job alone
};

Taken take(const HandOver& handOver);

void removeIncoming(const std::string& folder);

// What was not finished, and folders whose jobs are over.
void removeLeftovers(const std::set<std::string>& usedFolders);

}  // namespace updated

#endif
