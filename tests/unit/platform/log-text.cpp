#include "log/log-text.h"

#include <gtest/gtest.h>

namespace {

using fwplatform::PrintableText;

TEST(LogText, KeepsOrdinaryTextAndBackslashes) {
  const std::string text = "ID 7: 100% \\ done ~ \xC3\xA4 \xEB\xAA\xA8\xEB\x93\x88 \xF0\x9F\x93\xBA";

  EXPECT_EQ(PrintableText(text), text);
}

TEST(LogText, ShowsControlCharactersAsHex) {
  EXPECT_EQ(PrintableText("a\nb\rc\td\x1B[31me\x7F"), "a\\x0Ab\\x0Dc\\x09d\\x1B[31me\\x7F");
  EXPECT_EQ(PrintableText(std::string("a\0b", 3)), "a\\x00b");
}

TEST(LogText, ShowsEightBitControlCharactersAsHex) {
  EXPECT_EQ(PrintableText("\xC2\x9B"
                          "31m"),
            "\\xC2\\x9B31m");
  EXPECT_EQ(PrintableText("\xC2\x80\xC2\x9F\xC2\xA0"), "\\xC2\\x80\\xC2\\x9F\xC2\xA0");
}

TEST(LogText, ShowsInvalidUtf8AsHex) {
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
    EXPECT_EQ(PrintableText(one.text), one.shown) << one.what;
  }
}

TEST(LogText, KeepsTheFirstAndLastCodePointOfEachLength) {
  const std::string text =
      "\xC3\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF";

  EXPECT_EQ(PrintableText(text), text);
}

}  // namespace
