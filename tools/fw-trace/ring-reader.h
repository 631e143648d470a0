// SPDX-License-Identifier: Apache-2.0
// Reads the records of one thread, a piece of the ring at a time, also while the thread
// writes. What is damaged or missing is left out and named. Pure; any thread.
#ifndef FW_TRACE_RING_READER_H
#define FW_TRACE_RING_READER_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "trace-bytes.h"

namespace tracetool {

struct Record {
  std::int64_t time = 0;  // nanoseconds since 1970
  std::uint32_t threadId = 0;
  std::uint32_t locationId = 0;
  std::uint8_t kind = 0;
  std::string payload;
};

struct Ring {
  std::uint64_t chunk = 0;     // where its header stands in the file
  std::uint64_t capacity = 0;  // in bytes
  std::uint64_t there = 0;     // so many of them the file has
  std::uint64_t head = 0;      // bytes ever written
  std::uint64_t tail = 0;      // where the oldest record that is left begins

  bool isSound() const;
  std::uint64_t offset() const;  // in the file, of the first record's place
};

// Sentences about what could not be read; after the first twenty no more.
void note(std::vector<std::string>& skipped, const std::string& sentence);
std::string atByte(std::uint64_t offset);

class RingReader {
 public:
  // timeOffset makes a time since 1970 of a record's.
  RingReader(const Ring& ring, std::int64_t timeOffset);

  // The next records, in time order; none when there are no more. Adds to skipped.
  std::vector<Record> next(const TraceBytes& bytes, std::vector<std::string>& skipped);

  // Goes on with what was written since, up to this head. What was overwritten before it
  // could be read is gone.
  void goOnTo(std::uint64_t head);

  bool isAtEnd() const { return position_ >= ring_.head; }

 private:
  struct Frame {
    std::uint32_t size;
    std::uint32_t slack;
    std::uint8_t kind;
  };

  bool load(const TraceBytes& bytes);
  bool takeWindow(std::vector<Record>& records, std::vector<std::string>& skipped);
  bool hasLoaded(std::uint64_t size) const;
  std::optional<Frame> frame() const;
  std::optional<Record> record(const Frame& frame, std::vector<std::string>& skipped) const;
  void stepOver();

  Ring ring_;
  std::int64_t timeOffset_;
  std::uint64_t position_;          // of what is to be read next
  std::uint64_t needed_ = 0;        // bytes of it, when it is a long one
  std::uint64_t windowBegins_ = 0;  // the position of the window's first byte
  std::string window_;
  std::uint64_t lost_ = 0;  // bytes that are no records
};

}  // namespace tracetool

#endif
