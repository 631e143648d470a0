// How the tools lay out what they print: JSON documents, tables and broken lines.
// Pure functions; any thread.
#ifndef TOOLS_SHARED_TEXT_LAYOUT_H
#define TOOLS_SHARED_TEXT_LAYOUT_H

#include <json/value.h>

#include <cstddef>
#include <string>
#include <vector>

namespace tool {

// One JSON document; indented, or on one line.
std::string indented(const Json::Value& document);
std::string onOneLine(const Json::Value& document);

// The text broken at blanks into lines of at most width characters; lines after
// the first begin with indent blanks. A longer word keeps its line.
std::string wrapped(const std::string& text, std::size_t width, std::size_t indent = 0);

// Columns as wide as their widest cell; the last one is broken at width. The
// first row is the heading.
std::string table(const std::vector<std::vector<std::string>>& rows, std::size_t width);

// Seconds with three decimals.
double rounded(double seconds);

}  // namespace tool

#endif
