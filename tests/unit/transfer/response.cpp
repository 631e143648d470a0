// SPDX-License-Identifier: Apache-2.0
#include "response.h"

#include <gtest/gtest.h>

#include "trouble.h"

namespace {

using transfer::isHeaderText;
using transfer::kUnknownLength;
using transfer::parseContentRange;
using transfer::readHeaderLine;
using transfer::Response;
using transfer::validatorOf;

Response read(std::initializer_list<std::string> lines) {
  Response response;
  for (const std::string& line : lines) {
    readHeaderLine(line + "\r\n", response);
  }
  return response;
}

std::string refusal(std::initializer_list<std::string> lines) {
  try {
    read(lines);
  } catch (const transfer::Failure& failure) {
    EXPECT_EQ(failure.trouble(), transfer::Trouble::Protocol);
    return failure.what();
  }
  return "taken";
}

TEST(DownloadResponse, HasWhatTheHeadersSay) {
  const Response response =
      read({"HTTP/1.1 206 Partial Content", "content-LENGTH: \t 12 ", "ETag:\"a\"", "Last-Modified: m",
            "Date: d", "Content-Range: bytes 1-2/3", "X-Other: x", "no header", ""});

  EXPECT_EQ(response.length, 12);
  EXPECT_TRUE(response.hasEnd);
  EXPECT_EQ(response.etag, "\"a\"");
  EXPECT_EQ(response.lastModified, "m");
  EXPECT_EQ(response.date, "d");
  EXPECT_EQ(response.contentRange, "bytes 1-2/3");
}

TEST(DownloadResponse, BeginsAnewWithAStatusLine) {
  const Response response =
      read({"HTTP/1.1 103 Early", "ETag: \"a\"", "Content-Length: 5", "HTTP/1.1 200 OK"});

  EXPECT_EQ(response.etag, "");
  EXPECT_EQ(response.length, kUnknownLength);
  EXPECT_FALSE(response.hasEnd);
}

TEST(DownloadResponse, EndsByItselfInChunks) {
  const Response response = read({"Transfer-Encoding: chunked"});

  EXPECT_TRUE(response.hasEnd);
  EXPECT_EQ(response.length, kUnknownLength);
}

TEST(DownloadResponse, HasAnEmptyHeader) {
  EXPECT_EQ(read({"ETag:"}).etag, "");
  EXPECT_EQ(read({"ETag: \"a\"", "ETag:  \t "}).etag, "");
}

TEST(DownloadResponse, TakesAHeadersNameWithoutItsColonForNoHeader) {
  const Response response = read({"ETag", "Content-Length", "Transfer-Encoding"});

  EXPECT_EQ(response.etag, "");
  EXPECT_EQ(response.length, kUnknownLength);
  EXPECT_FALSE(response.hasEnd);
}

TEST(DownloadResponse, HasOneLengthThatIsANumber) {
  EXPECT_EQ(read({"Content-Length: 0"}).length, 0);
  EXPECT_EQ(read({"Content-Length: 7", "Content-Length: 7"}).length, 7);
  EXPECT_EQ(refusal({"Content-Length: 7", "Content-Length: 8"}),
            "The server announced two different lengths.");
  for (const char* length : {"", "-1", "1x", "x", "5, 5", "9223372036854775808"}) {
    EXPECT_EQ(refusal({std::string("Content-Length: ") + length}),
              "The server announced a length that is no number.")
        << length;
  }
}

TEST(DownloadResponse, HasNoControlCharacters) {
  for (const std::string& line :
       {std::string("ETag: \"a\rb\""), std::string("X: \x1B"), std::string("X: \x7F"),
        std::string("X: a\0b", 6), std::string("X: a\r"), std::string("X: a\n")}) {
    EXPECT_EQ(refusal({line}), "The server sent a header with a control character in it.") << line;
  }
  EXPECT_EQ(read({"ETag: \"a\tb\xC3\xA9\""}).etag, "\"a\tb\xC3\xA9\"");
}

TEST(DownloadResponse, EndsItsLinesWithALineFeedAlone) {
  Response response;

  readHeaderLine("ETag: \"a\"\n", response);
  readHeaderLine("\n", response);
  readHeaderLine("", response);

  EXPECT_EQ(response.etag, "\"a\"");
}

TEST(HeaderText, IsOneLine) {
  EXPECT_TRUE(isHeaderText(""));
  EXPECT_TRUE(isHeaderText("Range: bytes=1-\t\xFF ~"));
  for (const char byte : {'\r', '\n', '\0', '\x1F', '\x7F'}) {
    EXPECT_FALSE(isHeaderText(std::string("a") + byte)) << int{byte};
  }
}

TEST(ContentRangeHeader, HasThreeNumbers) {
  const auto range = parseContentRange("bytes 1-22/333");

  ASSERT_TRUE(range);
  EXPECT_EQ(range->first, 1);
  EXPECT_EQ(range->last, 22);
  EXPECT_EQ(range->total, 333);
  EXPECT_EQ(parseContentRange("bytes 0-9223372036854775807/0")->last, INT64_MAX);
  for (const char* text : {"", "1-22/333", "bytes 1-22/*", "bytes */333", "bytes 1-22", "bytes -1-22/333",
                           "bytes 1-22/333 ", "bytes 1--22/333", "bytes 1-9223372036854775808/333"}) {
    EXPECT_FALSE(parseContentRange(text)) << text;
  }
}

TEST(DownloadValidator, IsAStrongTagOrADateOfAFileThatHasSettled) {
  const std::string date = "Date: Sat, 21 Nov 2026 07:00:00 GMT";
  const std::string settled = "Last-Modified: Sat, 21 Nov 2026 06:59:00 GMT";

  EXPECT_EQ(validatorOf(read({"ETag: \"a\"", date, settled})), "\"a\"");
  EXPECT_EQ(validatorOf(read({"ETag: W/\"a\"", date, settled})), "");
  EXPECT_EQ(validatorOf(read({date, settled})), "Sat, 21 Nov 2026 06:59:00 GMT");
  EXPECT_EQ(validatorOf(read({date, "Last-Modified: Sat, 21 Nov 2026 06:59:01 GMT"})), "");
  EXPECT_EQ(validatorOf(read({settled})), "");
  EXPECT_EQ(validatorOf(read({date})), "");
  EXPECT_EQ(validatorOf(read({"Date: x", settled})), "");
  EXPECT_EQ(validatorOf(read({date, "Last-Modified: x"})), "");
  EXPECT_EQ(validatorOf(read({date, "Last-Modified: Thu, 01 Jan 1970 00:00:00 GMT"})),
            "Thu, 01 Jan 1970 00:00:00 GMT");
  EXPECT_EQ(validatorOf(read({date, "Last-Modified: Saturday, 21-Nov-26 06:59:00 GMT"})),
            "Saturday, 21-Nov-26 06:59:00 GMT");
  EXPECT_EQ(validatorOf(read({date, "Last-Modified: Sat Nov 21 06:59:00 2026"})), "Sat Nov 21 06:59:00 2026");
  EXPECT_EQ(validatorOf(read({date, "Last-Modified: Sat, 21 Nov 2026 06:59:00 GMT+1"})), "");
}

}  // namespace
