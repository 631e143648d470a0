// SPDX-License-Identifier: Apache-2.0
// How the tools lay out what they print: JSON documents, tables and broken lines.
// Pure functions; any thread.
#ifndef TOOLS_SHARED_TEXT_LAYOUT_H
#define TOOLS_SHARED_TEXT_LAYOUT_H

#include <json/value.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

// One JSON document; indented, or on one line. Every character comes back from it as it
// was; a byte that is not part of valid UTF-8 comes back as the text \xNN. It is ASCII
// without control characters.
std::string indented(const Json::Value& document);
std::string onOneLine(const Json::Value& document);

// The document with every text and every name in it changed.
Json::Value withTexts(const Json::Value& document, std::string (*changed)(std::string_view));

// The text broken at blanks into lines of at most width characters; lines after
// the first begin with indent blanks. A longer word keeps its line. What must not reach a
// terminal is written as \xNN, here and in tables, so that it is measured as it appears.
std::string wrapped(const std::string& text, std::size_t width, std::size_t indent = 0);

// Columns as wide as their widest cell; the last one is broken at width. The
// first row is the heading.
std::string table(const std::vector<std::vector<std::string>>& rows, std::size_t width);

// Seconds with three decimals.
double rounded(double seconds);

}  // namespace tool

#endif
