// SPDX-License-Identifier: Apache-2.0
// Times as people write them, in the local time zone. Pure; any thread.
#ifndef FW_TRACE_TIME_TEXT_H
#define FW_TRACE_TIME_TEXT_H

#include <cstdint>
#include <optional>
#include <string>

namespace tracetool {

// True for HH:MM[:SS[.fraction]], with or without YYYY-MM-DDT before it.
bool isTimeText(const std::string& text);

// The nanoseconds since 1970; a time without a day is on the day of dayOf.
std::optional<std::int64_t> parseTime(const std::string& text, std::int64_t dayOf);

std::string dayAndTime(std::int64_t nanoseconds);  // 2026-01-31 14:03:07
std::string timeOfDay(std::int64_t nanoseconds);   // 14:03:07.123456

// A span in the unit that suits it: 12.3 s, 45 ms, 7 us.
std::string spanText(std::int64_t nanoseconds);

}  // namespace tracetool

#endif
