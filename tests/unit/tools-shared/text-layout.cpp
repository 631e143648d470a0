// SPDX-License-Identifier: Apache-2.0
#include "text-layout.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace {

using tool::table;
using tool::wrapped;

TEST(WrappedText, IsBrokenWhereTheNextWordNoLongerFits) {
  EXPECT_EQ(wrapped("one two six", 7), "one two\nsix");
  EXPECT_EQ(wrapped("one two six", 6), "one\ntwo\nsix");
  EXPECT_EQ(wrapped("one two six", 11), "one two six");
}

TEST(WrappedText, IsIndentedAfterItsFirstLine) {
  EXPECT_EQ(wrapped("one two six", 9, 2), "one two\n  six");
  EXPECT_EQ(wrapped("one two six", 8, 2), "one\n  two\n  six");
}

TEST(WrappedText, KeepsALongWordOnALineOfItsOwn) {
  EXPECT_EQ(wrapped("a longer b", 3), "a\nlonger\nb");
  EXPECT_EQ(wrapped("longer", 3, 2), "longer");
}

TEST(WrappedText, HasOneBlankBetweenWordsAndNoneAround) {
  EXPECT_EQ(wrapped("  one   two ", 80), "one two");
  EXPECT_EQ(wrapped("", 80), "");
}

TEST(WrappedText, ShowsWhatMustNotReachATerminalAndMeasuresItSo) {
  EXPECT_EQ(wrapped("one\ntwo", 80), "one\\x0Atwo");
  EXPECT_EQ(wrapped("one \x9B\x9B two", 13), "one \\x9B\\x9B\ntwo");
}

TEST(Table, HasColumnsAsWideAsTheirWidestCell) {
  EXPECT_EQ(table({{"A", "B", "C"}, {"long", "b", "c"}}, 80),
            "A     B  C\n"
            "long  b  c\n");
}

TEST(Table, BreaksItsLastColumn) {
  EXPECT_EQ(table({{"A", "TEXT"}, {"a", "one two six"}}, 10),
            "A  TEXT\n"
            "a  one two\n"
            "   six\n");
}

TEST(Table, TakesRowsOfSeveralLengthsAndLeavesNoBlanksAtTheEnd) {
  EXPECT_EQ(table({{"A", "B"}, {"alone"}, {"a", "b", "c"}, {"x", ""}}, 80),
            "A      B\n"
            "alone\n"
            "a      b  c\n"
            "x\n");
}

TEST(Table, LetsNoControlCharacterThrough) {
  const std::string text = table({{"a\x1b[2J", "b\tc\x7f"}, {"d", "e"}}, 80);

  EXPECT_EQ(text.find_first_of("\x1b\t\x7f"), std::string::npos) << text;
}

TEST(Document, IsWrittenOnOneLineOrIndented) {
  Json::Value document;
  document["a"] = 1;
  document["b"] = 0.12345;

  EXPECT_EQ(tool::onOneLine(document), "{\"a\":1,\"b\":0.123}\n");
  EXPECT_EQ(tool::indented(document),
            "{\n"
            "  \"a\" : 1,\n"
            "  \"b\" : 0.123\n"
            "}\n");
}

TEST(Document, LetsNoControlCharacterThroughWhereverItStands) {
  Json::Value document;
  document["list"].append("a\x7f");
  document["list"].append(1);
  document["inside"]["\x7f"] = "\x1b";

  EXPECT_EQ(tool::onOneLine(document), "{\"inside\":{\"\\u007f\":\"\\u001b\"},\"list\":[\"a\\u007f\",1]}\n");
}

TEST(Document, HasValidCharactersAlone) {
  Json::Value document;
  document["text"] = "a\xff";
  document["b\xfe"] = 1;

  const std::string text = tool::onOneLine(document);

  EXPECT_EQ(text, "{\"b\\\\xFE\":1,\"text\":\"a\\\\xFF\"}\n");
}

TEST(Seconds, AreRoundedToThreeDecimals) {
  EXPECT_DOUBLE_EQ(tool::rounded(1.23449), 1.234);
  EXPECT_DOUBLE_EQ(tool::rounded(1.2345001), 1.235);
  EXPECT_DOUBLE_EQ(tool::rounded(0), 0);
}

}  // namespace
