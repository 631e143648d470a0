// Reads a trace file from memory. Takes anything: what is cut off, damaged or of
// another kind is left out and named. Takes no more memory than a small multiple of the
// bytes, whatever they are. Pure; any thread.
#ifndef FW_TRACE_TRACE_READER_H
#define FW_TRACE_TRACE_READER_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace tracetool {

// Of one trace; the newest are taken.
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

struct Record {
  std::int64_t time = 0;  // nanoseconds since 1970
  std::uint32_t threadId = 0;
  std::uint32_t locationId = 0;
  std::uint8_t kind = 0;
  std::string payload;
};

struct Trace {
  std::uint32_t processId = 0;
  std::uint32_t parentId = 0;
  std::int64_t start = 0;  // nanoseconds since 1970
  std::string processName;
  std::string commandLine;
  std::uint32_t dropped = 0;  // messages that found no room
  bool overwritten = false;   // the oldest records are gone
  std::map<std::uint32_t, Location> locations;
  std::vector<Record> records;       // in time order over all threads
  std::vector<std::string> skipped;  // what could not be read, a sentence each
  std::uint64_t placesRead = 0;      // bytes of the file that locations were made of
  std::uint64_t leftOut = 0;         // older records, beyond the maximum
};

struct ReadResult {
  std::string problem;  // why this is no trace at all; empty when it is one
  Trace trace;
};

ReadResult readTrace(std::string_view bytes);

}  // namespace tracetool

#endif
