// What the library's messages mean to people. Pure: everything is derived from
// recorded messages, so any thread may ask.
#ifndef FW_UPDATE_TOOL_LOG_MEANINGS_H
#define FW_UPDATE_TOOL_LOG_MEANINGS_H

#include <optional>
#include <string>

#include "library/library-log.h"
#include "outcomes.h"

namespace tool {

// The most telling of the messages, as an ending with its sentences. module is
// the library name that the sentences speak of. Empty when none tells anything.
std::optional<Finding> strongestMeaning(const LogMessages& messages, const std::string& module);

// How an update request ended, from the facade's result and the messages that
// were logged while it ran.
Finding explainUpdate(int result, const LogMessages& messages, const std::string& module);

// The expected duration in seconds and the time after which the library gives
// up, once the library has logged them. The sum wraps as the library's does.
struct TimeLimit {
  unsigned int expected = 0;
  unsigned int givesUp = 0;  // 0: never
};
std::optional<TimeLimit> timeLimit(const LogMessages& messages);

}  // namespace tool

#endif
