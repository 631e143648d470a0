// SPDX-License-Identifier: Apache-2.0
// What the library's messages mean to people. Pure: everything is derived from
// recorded messages, so any thread may ask.
#ifndef FW_UPDATE_TOOL_LOG_MEANINGS_H
#define FW_UPDATE_TOOL_LOG_MEANINGS_H

#include <exception>
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

// A module that threw out of one of its entry points. module: "A module" when it may be any.
Finding brokeOff(const std::string& module, const std::exception& error);

// Of the update that these messages tell of, once the library has logged it.
using fwmessages::TimeLimit;
std::optional<TimeLimit> timeLimit(const LogMessages& messages);

// What was logged when the library last asked this module whether it needs an image. A run
// over all modules that came later is no part of it.
LogMessages checkOf(const LogMessages& messages, const std::string& library);

}  // namespace tool

#endif
