// SPDX-License-Identifier: Apache-2.0
#include "printable-text.h"

#include <gtest/gtest.h>

namespace {

using base::printableText;

TEST(PrintableText, KeepsOrdinaryTextAndBackslashes) {
  const std::string text = "ID 7: 100% \\ done ~ \xC3\xA4 \xEB\xAA\xA8\xEB\x93\x88 \xF0\x9F\x93\xBA";

  EXPECT_EQ(printableText(text), text);
}

TEST(PrintableText, ShowsControlCharactersAsHex) {
  EXPECT_EQ(printableText("a\nb\rc\td\x1B[31me\x7F"), "a\\x0Ab\\x0Dc\\x09d\\x1B[31me\\x7F");
  EXPECT_EQ(printableText(std::string("a\0b", 3)), "a\\x00b");
}

TEST(PrintableText, ShowsEightBitControlCharactersAsHex) {
  EXPECT_EQ(printableText("\xC2\x9B"
                          "31m"),
            "\\xC2\\x9B31m");
  EXPECT_EQ(printableText("\xC2\x80\xC2\x9F\xC2\xA0"), "\\xC2\\x80\\xC2\\x9F\xC2\xA0");
}

TEST(PrintableText, ShowsInvalidUtf8AsHex) {
  struct Case {
    const char* what;
    std::string text;
    std::string shown;
  };
  const Case cases[] = {
      {"lone continuation", "\x80x", "\\x80x"},
      {"cut off at the end", "x\xE2\x82", "x\\xE2\\x82"},
      {"cut off before a letter", "\xE2\x82x", "\\xE2\\x82x"},
      {"overlong slash", "\xC0\xAF", "\\xC0\\xAF"},
      {"overlong in three bytes", "\xE0\x9F\xBF", "\\xE0\\x9F\\xBF"},
      {"surrogate", "\xED\xA0\x80", "\\xED\\xA0\\x80"},
      {"above the last code point", "\xF4\x90\x80\x80", "\\xF4\\x90\\x80\\x80"},
      {"never a first byte", "\xF5\xFE\xFF", "\\xF5\\xFE\\xFF"},
      {"third byte a first one", "\xE2\x82\xC3\xA4", "\\xE2\\x82\xC3\xA4"},
      {"third byte wrong", "\xF0\x9F\x41\x80", "\\xF0\\x9F\x41\\x80"},
  };

  for (const Case& one : cases) {
    EXPECT_EQ(printableText(one.text), one.shown) << one.what;
  }
}

TEST(PrintableText, KeepsTheFirstAndLastCodePointOfEachLength) {
  const std::string text =
      "\xC3\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF";

  EXPECT_EQ(printableText(text), text);
}

TEST(PrintableText, ShowsWhatTurnsTheDirectionOfTextAsHex) {
  struct Case {
    const char* what;
    std::string text;
  };
  const Case cases[] = {
      {"Arabic letter mark", "\xD8\x9C"},         {"left-to-right mark", "\xE2\x80\x8E"},
      {"right-to-left mark", "\xE2\x80\x8F"},     {"line separator", "\xE2\x80\xA8"},
      {"paragraph separator", "\xE2\x80\xA9"},    {"left-to-right embedding", "\xE2\x80\xAA"},
      {"right-to-left override", "\xE2\x80\xAE"}, {"left-to-right isolate", "\xE2\x81\xA6"},
      {"pop of an isolate", "\xE2\x81\xA9"},
  };

  for (const Case& one : cases) {
    const std::string shown = printableText(one.text);
    EXPECT_EQ(shown.substr(0, 2), "\\x") << one.what;
    EXPECT_EQ(shown.size(), one.text.size() * 4) << one.what;
  }
}

TEST(PrintableText, KeepsTheNeighboursOfWhatTurnsTheDirectionOfText) {
  const std::string text =
      "\xD8\x9B\xD8\x9D\xE2\x80\x8D\xE2\x80\x90\xE2\x80\xA7\xE2\x80\xAF\xE2\x81\xA5\xE2\x81\xAA";

  EXPECT_EQ(printableText(text), text);
}

TEST(PrintableLines, KeepLineFeedsAndTabsAndNoOtherControlCharacter) {
  EXPECT_EQ(base::printableLines("a\n\tb\r\n\x1B\v\x9B"), "a\n\tb\\x0D\n\\x1B\\x0B\\x9B");
}

TEST(ValidText, ChangesNothingButWhatIsNoUtf8) {
  EXPECT_EQ(base::validText("\x1B\n\xC2\x9B\xE2\x80\xAE\x9B\xFF"), "\x1B\n\xC2\x9B\xE2\x80\xAE\\x9B\\xFF");
}

TEST(UnfinishedLength, IsThatOfACharacterWhoseEndMayCome) {
  EXPECT_EQ(base::unfinishedLength(""), 0u);
  EXPECT_EQ(base::unfinishedLength("abc"), 0u);
  EXPECT_EQ(base::unfinishedLength("a\xC3\xA4"), 0u);
  EXPECT_EQ(base::unfinishedLength("a\xC3"), 1u);
  EXPECT_EQ(base::unfinishedLength("a\xE2\x82"), 2u);
  EXPECT_EQ(base::unfinishedLength("a\xF0\x9F\x93"), 3u);
}

TEST(UnfinishedLength, IsNothingWhenNoEndCanMakeItACharacter) {
  EXPECT_EQ(base::unfinishedLength("a\x80"), 0u);
  EXPECT_EQ(base::unfinishedLength("a\xE0\x80"), 0u);
  EXPECT_EQ(base::unfinishedLength("\x80\x80\x80\x80"), 0u);
}

}  // namespace
