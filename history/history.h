// SPDX-License-Identifier: Apache-2.0
// The history of the updates of this set: one SQLite file, which every process that may
// write it adds to. The file is open only inside a call, and a call waits for another
// process for a moment at most. Whatever goes wrong with it costs an entry and never an
// update: begin() and finish() do not throw. For one thread.
#ifndef FW_HISTORY_HISTORY_H
#define FW_HISTORY_HISTORY_H

#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "entry.h"
#include "file-descriptor.h"
#include "settings.h"

namespace SQLite {
class Database;
}

namespace history {

// An entry that has begun. The kernel gives its lock back with the last process that has
// this open, so that others see whether it is still at work.
struct Attempt {
  std::int64_t number = 0;  // 0: it could not be written
  std::int64_t began = 0;
  base::FileDescriptor lock;
};

struct Filter {
  std::string module;
  std::int64_t since = 0;  // milliseconds since 1970
  bool failedOnly = false;
  std::size_t most = 0;  // the newest; 0: all
};

// The updates that another process has left a trace of, each with when it began.
struct Traced {
  std::string name;  // the process's, for ever
  std::vector<std::pair<std::int64_t, Entry>> updates;
};

// The same entry, of a process that is gone.
Entry interrupted(Entry entry);

// All attempts with an outcome, also those that the file has no room for any more.
struct Total {
  std::string module;
  std::string outcome;
  std::int64_t count = 0;
  double seconds = 0;
  std::int64_t last = 0;  // milliseconds since 1970
  std::string version;    // after the last one
};

// Why the history cannot be read. what() is one sentence for people.
class Failure : public std::runtime_error {
 public:
  Failure(const std::string& sentence, bool denied) : runtime_error(sentence), isDenied(denied) {}
  const bool isDenied;
};

class History {
 public:
  explicit History(Settings settings);

  // number, outcome and times are the history's, here and there.
  Attempt begin(Entry entry);
  // The whole entry: what it was not begun with is written as well. May come again, when
  // more is known of it.
  void finish(const Attempt& attempt, Entry entry);

  bool mayBeWritten() const;
  // Those that are new become entries. all: of all traces that there are; what is known of others
  // is forgotten. Does not throw.
  void takeIn(const std::vector<Traced>& all);

  // Oldest first. Both throw Failure.
  std::vector<Entry> list(const Filter& filter);
  std::optional<Entry> find(std::int64_t number);
  std::vector<Total> totals();

  // A sentence about a damaged file that was set aside by this object; empty when none was.
  const std::string& warning() const { return warning_; }
  // Where a damaged file is kept; empty when there is none.
  std::string damagedFile() const;

 private:
  using Step = std::function<void(SQLite::Database& file)>;

  bool write(const Step& step);
  bool tryWrite(const Step& step, int removed);
  void read(const Step& step);
  void setAside();
  std::string pathOf(const char* name) const;
  base::FileDescriptor openLocks() const;

  const Settings settings_;
  std::string warning_;
};

}  // namespace history

#endif
