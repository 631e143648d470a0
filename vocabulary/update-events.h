// SPDX-License-Identifier: Apache-2.0
// What the library's messages tell of the way of an update: each message as an event, by one
// table. Pure; any thread.
#ifndef UPDATE_EVENTS_H
#define UPDATE_EVENTS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace fwmessages {

// With the arguments that those who go by it may count on.
enum class Event {
  Other,               // tells nothing of an update's way
  Error,               // why something does not go on
  CheckBegins,         // library name, firmware name
  NotNeeded,           // the check's answer
  PackageChecked,      // of a USB package, which is among the arguments
  PackageMissing,      // the same, when it cannot be opened
  LockWanted,          // firmware name, expected seconds
  LockTaken,           // firmware name
  WriteBegins,         // firmware name
  PackageWriteBegins,  // firmware name; the package is a USB package
  ProcedureBegins,     // a module's own; firmware name
  Succeeded,           // firmware name
  Failed,
  NotNeededAnyMore,
  TimedOut,
  RequestEnds,  // caller, state, library name
  RunBegins,
  RunEnds,  // the last module's turn is over
};

// function: the one that logged; argumentCount: how many arguments the message has. Other
// when they are not as the library has them.
Event eventOf(std::string_view format, std::string_view function, std::size_t argumentCount);

// One message, as far as it is of interest here.
struct Logged {
  Event event = Event::Other;
  std::int64_t time = 0;       // nanoseconds, of any clock
  std::uint32_t threadId = 0;  // that logged it
  std::string text;
  std::vector<std::string> arguments;
};

}  // namespace fwmessages

#endif
