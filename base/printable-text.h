// SPDX-License-Identifier: Apache-2.0
// Makes texts of unknown origin safe to show: names, versions and messages of modules,
// files and servers reach terminals and log files. Stateless; any thread.
#ifndef FW_BASE_PRINTABLE_TEXT_H
#define FW_BASE_PRINTABLE_TEXT_H

#include <cstddef>
#include <string>
#include <string_view>

namespace base {

// What may reach a terminal is left as it is; every other byte is written as \xNN. That
// is control characters of 7 and 8 bits, bytes that are not part of valid UTF-8, and the
// characters that turn the direction of text or break lines unseen (U+061C, U+200E,
// U+200F, U+2028 to U+202E, U+2066 to U+2069). Other text, backslashes included, stays.

// Of one line: line feeds and tabs are written as \xNN, too.
std::string printableText(std::string_view text);

// Of several lines: line feeds and tabs stay.
std::string printableLines(std::string_view text);

// Every byte that is not part of valid UTF-8 as \xNN, and nothing else; for documents
// that escape the rest themselves.
std::string validText(std::string_view text);

// The number of bytes at the end that may be the beginning of a character whose other
// bytes are to come.
std::size_t unfinishedLength(std::string_view text);

}  // namespace base

#endif
