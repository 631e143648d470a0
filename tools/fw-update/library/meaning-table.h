// SPDX-License-Identifier: Apache-2.0
// The library's message texts and what each means: the one place that knows them.
// The texts are the library's interface, kept to the letter.
#ifndef FW_UPDATE_TOOL_MEANING_TABLE_H
#define FW_UPDATE_TOOL_MEANING_TABLE_H

#include <cstddef>

#include "library/library-log.h"
#include "outcomes.h"

namespace tool {

using Condition = bool (*)(const LogMessage& message);

// {0}, {1} ... are the message's arguments, {answer} the module's with its meaning, {errno} the error text,
// {module} the library name, {expected} and {limit} the update's times in seconds.
struct Meaning {
  const char* format;
  Condition when;  // null: always
  Outcome outcome;
  const char* sentence;
  const char* remedy;
};

struct MeaningTable {
  const Meaning* first;
  std::size_t count;

  const Meaning* begin() const { return first; }
  const Meaning* end() const { return first + count; }
};

// The most telling message first.
MeaningTable meaningTable();

// Whether this is the library's message that it gave up waiting.
bool isTimeOut(const LogMessage& message);

}  // namespace tool

#endif
