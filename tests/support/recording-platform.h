// SPDX-License-Identifier: Apache-2.0
// A platform that does nothing but write down, in one list, what the library asks
// of it, in order. A test program that links it takes the place of
// libfw-platform.so. Answers can be set before the call; everything is reset by
// reset(). Safe for several threads.
#ifndef RECORDING_PLATFORM_H
#define RECORDING_PLATFORM_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace recording {

// One message to the platform log.
struct LogLine {
  int logId;
  int priority;
  std::string tag;
  std::string format;  // with the prefix
  std::string file;
  std::string function;
  int line;
  std::string text;  // rendered, without the prefix
};

// One committed trace record, with the location that it was written from.
struct TraceRecord {
  unsigned int kind;
  std::uint32_t locationId;
  std::string payload;
};

struct Argument {
  std::string typeName;
  unsigned int flag;
  unsigned int size;
};

struct Location {
  std::string sourcePath;
  int line;
  std::uint32_t id;
  std::string functionName;
  std::string format;
  std::vector<Argument> arguments;
};

// What the platform answers; the members are called in place of the real thing.
struct Answers {
  // Null value with status 0 is possible: a platform may report that.
  int softwareVersionStatus = 0;
  std::optional<std::string> softwareVersion = "model-1-2";
  std::function<int(const std::string& arguments, int& result)> mount;
  std::function<int(const std::string& arguments, int& result)> makeNode;
  std::function<int(const std::string& directory, int& result)> unmount;
  bool downloadAccepted = true;
  int eventStatus = 0;
  int powerLockStatus = 0;
  int powerUnlockStatus = 0;
  bool dropTraceRecords = false;
};

void reset();
Answers& answers();

// Every platform call but the log, as "name(arguments)", in order.
std::vector<std::string> calls();
void noteCall(const std::string& call);

std::vector<LogLine> logLines();
// "priority file function text" of every message, in order.
std::vector<std::string> messages();
// Only the texts.
std::vector<std::string> texts();
// Calls and messages' texts in the one order in which they came; a message stands
// as "log: text".
std::vector<std::string> everything();

std::vector<TraceRecord> traceRecords();
std::vector<Location> traceLocations();
// The format of each committed record's location, in order.
std::vector<std::string> traceFormats();

// Called for every message, on the thread that logs it.
void onMessage(std::function<void(const LogLine&)> listener);

}  // namespace recording

#endif
