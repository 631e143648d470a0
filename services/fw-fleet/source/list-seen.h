// SPDX-License-Identifier: Apache-2.0
// The newest release list that the set has used, so that an older one is not used after it: list.seen, old
// or new and never a part, also after a power cut. Stateless.
#ifndef FW_FLEET_LIST_SEEN_H
#define FW_FLEET_LIST_SEEN_H

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

namespace fleet {

struct SeenList {
  std::int64_t number = 0;
  std::int64_t issued = 0;  // seconds since 1970
  std::string sha256;       // of the list's bytes
  bool isOffered = false;   // there was something to do for it
};

bool operator==(const SeenList& one, const SeenList& other);

// It cannot be used, and no list can without it. what() is a sentence.
struct SeenUnusable : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Nothing when none was seen. Throws SeenUnusable.
std::optional<SeenList> readSeen(const std::string& directory);
// On the disk when it returns. Throws SeenUnusable.
void writeSeen(const std::string& directory, const SeenList& seen);

}  // namespace fleet

#endif
