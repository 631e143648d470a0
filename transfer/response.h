// SPDX-License-Identifier: Apache-2.0
// What a server says before it sends anything, read from the lines of its headers.
// Plain values and stateless functions.
#ifndef TRANSFER_RESPONSE_H
#define TRANSFER_RESPONSE_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace transfer {

inline constexpr std::int64_t kUnknownLength = -1;

struct Response {
  int code = 0;                          // 200 for a file that was opened
  std::int64_t length = kUnknownLength;  // of what follows
  bool hasEnd = false;                   // what follows says itself where it ends
  std::string etag;
  std::string lastModified;
  std::string date;
  std::string contentRange;
  std::string contentType;
  std::string retryAfter;
};

// Takes in one line, with its end. A status line begins anew: what came before it was
// an interim answer. Throws Failure for what no server may send.
void readHeaderLine(const std::string& line, Response& response);

struct ContentRange {
  std::int64_t first;
  std::int64_t last;
  std::int64_t total;
};

// Of a Content-Range header; nothing when it does not say all three.
std::optional<ContentRange> parseContentRange(std::string_view text);

// What marks the file on the server, for an If-Range header; empty when the server gave
// nothing reliable.
std::string validatorOf(const Response& response);

// No line of a header may end before its end, nor have anything else that is no text.
bool isHeaderText(std::string_view text);

}  // namespace transfer

#endif
