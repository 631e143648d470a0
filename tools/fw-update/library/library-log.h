// SPDX-License-Identifier: Apache-2.0
// Records what the library logs, so that the tool can tell people why a request
// ended as it did: the facade's results alone do not say. The tool defines the
// platform's log function itself, keeps every message of the library and hands
// it on to the platform. One record a process; any thread may log and read.
#ifndef FW_UPDATE_TOOL_LIBRARY_LOG_H
#define FW_UPDATE_TOOL_LIBRARY_LOG_H

#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "update-tracker.h"

namespace tool {

struct LogMessage {
  int priority = 0;
  std::string file;
  std::string function;
  int line = 0;
  std::string format;                  // without the prefix; the message's identity
  std::string text;                    // rendered, without the prefix
  std::vector<std::string> arguments;  // one text for each conversion, %m included
  int errorNumber = 0;                 // errno when it was logged
  long thread = 0;                     // the kernel's number of the thread that logged
  std::chrono::steady_clock::time_point time;
};

using LogMessages = std::vector<LogMessage>;

class LibraryLog {
 public:
  // Lives to the end of the process: the library logs in its last destructors.
  static LibraryLog& instance();

  void add(LogMessage message);

  // The number of messages so far: a mark for since().
  std::size_t mark() const;
  LogMessages since(std::size_t mark) const;

 private:
  LibraryLog() = default;

  mutable std::mutex mutex_;
  LogMessages messages_;
};

// The first message with this format, or null.
const LogMessage* findMessage(const LogMessages& messages, const char* format);

// As a tracker takes it; times are those of the steady clock.
fwmessages::Logged loggedOf(const LogMessage& message);
// The updates that these messages tell of.
fwmessages::UpdateTracker trackerOf(const LogMessages& messages);

}  // namespace tool

#endif
