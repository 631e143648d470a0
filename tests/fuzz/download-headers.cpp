// SPDX-License-Identifier: Apache-2.0
// Fuzz target: the headers of a web server's answer, line by line as libcurl hands them
// on. What a server may send is written down here a second time.
#include <algorithm>
#include <cstdlib>
#include <string>

#include "fuzz-target.h"
#include "response.h"
#include "trouble.h"

namespace {

using transfer::ContentRange;
using transfer::parseContentRange;
using transfer::readHeaderLine;
using transfer::Response;
using transfer::validatorOf;

// Each with its end, as it came.
std::vector<std::string> linesOf(std::string_view input) {
  std::vector<std::string> lines;
  while (!input.empty()) {
    const std::size_t end = std::min(input.find('\n'), input.size() - 1) + 1;
    lines.emplace_back(input.substr(0, end));
    input.remove_prefix(end);
  }
  return lines;
}

// Nothing but text, but for "\r\n" or "\n" at the end.
bool isText(std::string line) {
  for (const char* end : {"\n", "\r"}) {
    if (!line.empty() && line.back() == *end) {
      line.pop_back();
    }
  }
  return std::none_of(line.begin(), line.end(), [](char byte) {
    return (static_cast<unsigned char>(byte) < 32 && byte != '\t') || byte == 127;
  });
}

void holdAgainstText(const Response& response) {
  for (const std::string& value :
       {response.etag, response.lastModified, response.date, response.contentRange, validatorOf(response)}) {
    fuzz::require(isText(value + "\n"), "what is kept of a header is text");
    fuzz::require(value.empty() || (value.front() != ' ' && value.back() != ' '), "without blanks around it");
  }
  fuzz::require(response.etag.rfind("W/", 0) != 0 || validatorOf(response).empty(),
                "a weak tag marks nothing");
  fuzz::require(response.length >= transfer::kUnknownLength, "a length is not negative");
  fuzz::require(response.length == transfer::kUnknownLength || response.hasEnd,
                "what has a length has an end");
}

// The one way to write what was read, but for zeros in front of a number.
void holdAgainstWriting(const std::string& text, const ContentRange& range) {
  fuzz::require(range.first >= 0 && range.last >= 0 && range.total >= 0, "no number of a range is negative");
  const std::string written = "bytes " + std::to_string(range.first) + "-" + std::to_string(range.last) +
                              "/" + std::to_string(range.total);
  fuzz::require(written.size() <= text.size() && (text == written || text.find('0') != std::string::npos),
                "a range is what it says");
}

}  // namespace

namespace fuzz {

void prepare(const std::vector<std::string>&) {}

// Good is an answer that an image can come in.
bool accepts(std::string_view input) {
  Response response;
  bool allText = true;
  try {
    for (const std::string& line : linesOf(input)) {
      allText = allText && isText(line);
      readHeaderLine(line, response);
    }
  } catch (const transfer::Failure& failure) {
    require(failure.trouble() == transfer::Trouble::Protocol, "a server is to blame for its headers");
    return false;
  }
  require(allText, "a header with a control character is refused");
  holdAgainstText(response);
  if (const auto range = parseContentRange(response.contentRange)) {
    holdAgainstWriting(response.contentRange, *range);
  }
  return response.hasEnd;
}

}  // namespace fuzz
