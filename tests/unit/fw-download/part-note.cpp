// SPDX-License-Identifier: Apache-2.0
#include "part-note.h"

#include <gtest/gtest.h>

namespace {

using fwdownload::noteText;
using fwdownload::Origin;
using fwdownload::parseNote;
using fwdownload::PartNote;

PartNote sample() {
  return {{"https://h/x.img", "\"tag\"", 9000}, 4096, "a start"};
}

TEST(PartNote, IsReadAsItWasWritten) {
  const auto note = parseNote(noteText(sample()));

  ASSERT_TRUE(note);
  EXPECT_EQ(note->origin.url, "https://h/x.img");
  EXPECT_EQ(note->origin.validator, "\"tag\"");
  EXPECT_EQ(note->origin.total, 9000);
  EXPECT_EQ(note->synced, 4096);
  EXPECT_EQ(note->boot, "a start");
}

// A header of the next request would be made of it.
TEST(PartNote, IsRefusedWhenItsMarkIsNotPrintable) {
  for (const char* validator :
       {"\"a\"\r\nX-More: 1", "\"a\n\"", "\x1B", "\x7F", "\"\xE9\"", "\"\xC3\xA9\"", ""}) {
    PartNote note = sample();
    note.origin.validator = validator;

    EXPECT_FALSE(parseNote(noteText(note))) << validator;
  }
}

TEST(PartNote, IsRefusedWhenItsNumbersCannotBe) {
  const auto parses = [](std::int64_t total, std::int64_t synced) {
    PartNote note = sample();
    note.origin.total = total;
    note.synced = synced;
    return parseNote(noteText(note)).has_value();
  };

  EXPECT_TRUE(parses(1, 0));
  EXPECT_TRUE(parses(5, 5));
  EXPECT_FALSE(parses(0, 0));
  EXPECT_FALSE(parses(-1, 0));
  EXPECT_FALSE(parses(5, -1));
  EXPECT_FALSE(parses(5, 6));
}

TEST(PartNote, IsRefusedWhenItIsNone) {
  for (const std::string& text :
       {std::string(), std::string("{"), std::string("[]"), std::string("7"), std::string(5000, '['),
        std::string("{\"url\": {}, \"validator\": \"x\", \"total\": 5, \"synced\": 0, \"boot\": \"\"}"),
        std::string("{\"url\": \"\", \"validator\": \"x\", \"total\": \"5\", \"synced\": 0, \"boot\": \"\"}"),
        std::string(
            "{\"url\": \"\", \"validator\": \"x\", \"total\": 1e30, \"synced\": 0, \"boot\": \"\"}")}) {
    EXPECT_FALSE(parseNote(text)) << text.substr(0, 60);
  }
}

TEST(PartNote, ContinuesOnlyAFileThatCanBeToldFromOthers) {
  EXPECT_TRUE((Origin{"u", "\"a\"", 1}).canBeContinued());
  EXPECT_FALSE((Origin{"u", "", 1}).canBeContinued());
  EXPECT_FALSE((Origin{"u", "\"a\r\"", 1}).canBeContinued());
  EXPECT_FALSE((Origin{"u", "\"a\"", 0}).canBeContinued());
  EXPECT_FALSE((Origin{"u", "\"a\"", -1}).canBeContinued());
}

}  // namespace
