// SPDX-License-Identifier: Apache-2.0
// The records of many traces in time order, read a piece at a time: however large the
// traces are, a window of each thread's is in memory. Only for use by one thread.
#ifndef FW_TRACE_RECORD_STREAM_H
#define FW_TRACE_RECORD_STREAM_H

#include <cstdint>
#include <list>
#include <map>
#include <queue>
#include <string>
#include <vector>

#include "message.h"
#include "trace-store.h"

namespace tracetool {

// A trace, and how far each of its threads was read.
struct TraceReading {
  explicit TraceReading(TraceFile opened) : file(std::move(opened)) { takeRings(); }

  // Finds what its process wrote since. False when there will be nothing more after it:
  // the process is dead, or the file is another one now.
  bool readOn();

  TraceFile file;
  std::map<std::uint64_t, RingReader> rings;  // by their chunk
  std::size_t damaged = 0;                    // messages whose arguments do not fit their place

 private:
  void takeRings();
};

class RecordStream {
 public:
  // From where each was read to, up to where it was seen to end.
  explicit RecordStream(std::list<TraceReading>& readings);
  explicit RecordStream(TraceReading& reading);

  // The next record of a message. False when there is none. What it points at holds until
  // the next call.
  bool next();

  const Record& record() const { return *record_; }
  TraceReading& reading() const { return *reading_; }
  // nullptr when the trace does not have it.
  const Location* location() const;
  // The record in words. Counts what is damaged.
  Message message() const;

 private:
  struct Thread {
    TraceReading* reading;
    RingReader* ring;
    std::vector<Record> records;  // of the window
    std::size_t taken = 0;
  };
  // The time of its next record, and its number: of equal times the first comes first.
  using Turn = std::pair<std::int64_t, std::size_t>;

  void add(TraceReading& reading);
  void queue(std::size_t thread);

  std::vector<Thread> threads_;
  std::priority_queue<Turn, std::vector<Turn>, std::greater<>> turns_;
  std::size_t current_ = SIZE_MAX;  // the thread that has to be put back into the queue
  const Record* record_ = nullptr;
  TraceReading* reading_ = nullptr;
};

}  // namespace tracetool

#endif
