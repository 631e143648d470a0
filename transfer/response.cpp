// SPDX-License-Identifier: Apache-2.0
#include "response.h"

#include <strings.h>
#include <time.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <system_error>

#include "trouble.h"

namespace transfer {
namespace {

// A date is a reliable mark of a file that had not changed for this long.
constexpr long kSettledSeconds = 60;

// The forms of a date that a server may send, the usual one first.
constexpr const char* kDateForms[] = {"%a, %d %b %Y %H:%M:%S GMT", "%A, %d-%b-%y %H:%M:%S GMT",
                                      "%a %b %e %H:%M:%S %Y"};

// Seconds since 1970. libcurl's own answer has 32 bits on a 32-bit system, where this program
// takes it for 64.
std::optional<std::int64_t> parseDate(const std::string& text) {
  for (const char* form : kDateForms) {
    tm parts = {};
    const char* const end = strptime(text.c_str(), form, &parts);
    if (end != nullptr && *end == '\0') {
      return timegm(&parts);
    }
  }
  return std::nullopt;
}

bool sameHeader(const std::string& name, const char* other) {
  return strcasecmp(name.c_str(), other) == 0;
}

struct HeaderField {
  const char* name;
  std::string Response::*value;
};

constexpr HeaderField kHeaders[] = {
    {"ETag", &Response::etag},
    {"Last-Modified", &Response::lastModified},
    {"Date", &Response::date},
    {"Content-Range", &Response::contentRange},
    {"Content-Type", &Response::contentType},
    {"Retry-After", &Response::retryAfter},
};

std::int64_t parseLength(const std::string& text) {
  std::int64_t length = 0;
  const char* const end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, length);
  if (parsed.ec != std::errc() || parsed.ptr != end || length < 0) {
    throw Failure(Trouble::Protocol, "The server announced a length that is no number.");
  }
  return length;
}

void takeLength(const std::string& text, Response& response) {
  const std::int64_t length = parseLength(text);
  if (response.length != kUnknownLength && response.length != length) {
    throw Failure(Trouble::Protocol, "The server announced two different lengths.");
  }
  response.length = length;
  response.hasEnd = true;
}

// Takes the prefix and the number behind it off the front of a text; nothing when they
// are not there. Only digits are a number.
std::optional<std::int64_t> takeNumber(std::string_view& text, std::string_view prefix) {
  if (text.substr(0, prefix.size()) != prefix) {
    return std::nullopt;
  }
  text.remove_prefix(prefix.size());
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || number > INT64_MAX) {
    return std::nullopt;
  }
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return static_cast<std::int64_t>(number);
}

std::string withoutEnd(const std::string& line) {
  std::size_t size = line.size();
  for (const char end : {'\n', '\r'}) {
    size -= size > 0 && line[size - 1] == end ? 1U : 0U;
  }
  return line.substr(0, size);
}

}  // namespace

bool isHeaderText(std::string_view text) {
  return std::none_of(text.begin(), text.end(), [](char byte) {
    const auto value = static_cast<unsigned char>(byte);
    return (value < ' ' && byte != '\t') || value == 0x7F;
  });
}

void readHeaderLine(const std::string& line, Response& response) {
  const std::string content = withoutEnd(line);
  if (!isHeaderText(content)) {
    throw Failure(Trouble::Protocol, "The server sent a header with a control character in it.");
  }
  if (content.rfind("HTTP/", 0) == 0) {
    response = {};
    return;
  }
  const std::size_t colon = content.find(':');
  if (colon == std::string::npos) {
    return;
  }
  const std::string name = content.substr(0, colon);
  const std::size_t begin = content.find_first_not_of(" \t", colon + 1);
  const std::size_t end = content.find_last_not_of(" \t");
  const std::string value = begin == std::string::npos ? "" : content.substr(begin, end - begin + 1);
  for (const HeaderField& header : kHeaders) {
    if (sameHeader(name, header.name)) {
      response.*header.value = value;
    }
  }
  if (sameHeader(name, "Content-Length")) {
    takeLength(value, response);
  } else if (sameHeader(name, "Transfer-Encoding")) {
    response.hasEnd = true;  // libcurl understands it, or refuses it
  }
}

std::optional<ContentRange> parseContentRange(std::string_view text) {
  const auto first = takeNumber(text, "bytes ");
  const auto last = takeNumber(text, "-");
  const auto total = takeNumber(text, "/");
  if (!first || !last || !total || !text.empty()) {
    return std::nullopt;
  }
  return ContentRange{*first, *last, *total};
}

std::string validatorOf(const Response& response) {
  if (!response.etag.empty()) {
    return response.etag[0] == '"' ? response.etag : "";  // W/"..." is weak
  }
  const auto modified = parseDate(response.lastModified);
  const auto now = parseDate(response.date);
  const bool settled = modified && now && *now - *modified >= kSettledSeconds;
  return settled ? response.lastModified : "";
}

}  // namespace transfer
