// SPDX-License-Identifier: Apache-2.0
// Reads a trace. Takes anything: what is cut off, damaged or of another kind is left out
// and named. Takes no more memory than a small multiple of the bytes, whatever they are.
// Pure; any thread.
#ifndef FW_TRACE_TRACE_READER_H
#define FW_TRACE_TRACE_READER_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "ring-reader.h"
#include "trace-bytes.h"

namespace tracetool {

// Of one trace that is taken whole; the newest are.
inline constexpr std::size_t kMaximumRecords = 1000000;

struct ArgumentType {
  std::string name;
  std::uint8_t flag = 0;
  std::uint16_t size = 0;
};

struct Location {
  std::uint32_t id = 0;
  int line = 0;
  std::string sourcePath;
  std::string function;
  std::string format;
  std::vector<ArgumentType> arguments;
};

// Where descriptions of locations stand in the file.
struct Places {
  std::uint64_t chunk = 0;
  std::uint64_t there = 0;  // bytes that there is room for
  std::uint64_t taken = 0;  // bytes that were read
};

struct Trace {
  std::uint32_t processId = 0;
  std::uint32_t parentId = 0;
  std::int64_t start = 0;       // nanoseconds since 1970
  std::int64_t timeOffset = 0;  // from a record's time to one since 1970
  std::string processName;
  std::string commandLine;
  std::uint32_t dropped = 0;  // messages that found no room
  bool overwritten = false;   // the oldest records are gone
  std::map<std::uint32_t, Location> locations;
  std::uint64_t firstChunk = 0;
  std::vector<Places> places;  // by their chunks' order, as the rings are
  std::vector<Ring> rings;
  std::vector<Record> records;       // in time order over all threads
  std::vector<std::string> skipped;  // what could not be read, a sentence each
  std::uint64_t placesRead = 0;      // bytes of the file that locations were made of
  std::uint64_t leftOut = 0;         // older records, beyond the maximum
};

struct ReadResult {
  std::string problem;  // why this is no trace at all; empty when it is one
  Trace trace;
};

// Everything but the records.
ReadResult readOutline(const TraceBytes& bytes);

// Goes on with what its process wrote since: new places and rings, other ends of rings.
void readOn(const TraceBytes& bytes, Trace& trace);

// The records of an outline.
void readRecords(const TraceBytes& bytes, Trace& trace);

// Both.
ReadResult readTrace(std::string_view bytes);

}  // namespace tracetool

#endif
