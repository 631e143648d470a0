// SPDX-License-Identifier: Apache-2.0
// One attempt to update, as the history keeps it. A plain value.
#ifndef FW_HISTORY_ENTRY_H
#define FW_HISTORY_ENTRY_H

#include <cstdint>
#include <optional>
#include <string>

namespace history {

// Outcomes of an entry are those of fw-update's exit codes, and these.
inline constexpr const char* kRunning = "running";
inline constexpr const char* kInterrupted = "interrupted";

struct Entry {
  std::int64_t number = 0;            // from 1; never used twice
  std::int64_t run = 0;               // of the run over several modules that it is part of; 0: of none
  std::int64_t began = 0;             // milliseconds since 1970
  std::optional<std::int64_t> ended;  // none of what runs, or was interrupted
  std::string outcome = kRunning;
  std::string way;     // "direct", "service", "library", "update-all", "usb", "download"
  std::string user;    // who ran the process, or asked the service
  std::string caller;  // who asked, as the library knows callers
  std::string module;  // empty: a run over several
  std::string firmware;
  std::string versionBefore;
  std::string versionAfter;
  std::string image;  // its path
  std::string checksum;
  std::string source;  // where the image came from, in words
  std::string key;     // the identifier of the key that signed it
  std::string steps;   // "check 0.1 s, write 3.2 s"
  std::string sentence;
  std::string remedy;
  std::string messages;  // the module's own last ones, a line each
};

// The texts of an entry, by the names that they have in the file and in documents.
struct Field {
  const char* name;
  std::string Entry::*text;
};

inline constexpr Field kFields[] = {
    {"outcome", &Entry::outcome},
    {"way", &Entry::way},
    {"user", &Entry::user},
    {"caller", &Entry::caller},
    {"module", &Entry::module},
    {"firmware", &Entry::firmware},
    {"versionBefore", &Entry::versionBefore},
    {"versionAfter", &Entry::versionAfter},
    {"image", &Entry::image},
    {"checksum", &Entry::checksum},
    {"source", &Entry::source},
    {"key", &Entry::key},
    {"steps", &Entry::steps},
    {"sentence", &Entry::sentence},
    {"remedy", &Entry::remedy},
    {"messages", &Entry::messages},
};

}  // namespace history

#endif
