// SPDX-License-Identifier: Apache-2.0
#include "image-information.h"

#include <gmock/gmock.h>

#include <string>

namespace {

using image::Information;
using image::parseInformation;

constexpr char kWhole[] = R"({"version": "2.0", "crc": 4294967295, "expected_time": 30})";

TEST(ImageInformation, IsReadAsItWasWritten) {
  const auto read = parseInformation(toText(Information{"2.0 \xc3\xbc", 4000000000U, 4294967295U}));

  ASSERT_TRUE(read);
  EXPECT_EQ(read->version, "2.0 \xc3\xbc");
  EXPECT_EQ(read->crc, 4000000000U);
  EXPECT_EQ(read->expectedTime, 4294967295U);
}

TEST(ImageInformation, HasALayoutForPeople) {
  EXPECT_EQ(toText(Information{"2.0", 1, 30}),
            "{\n  \"crc\" : 1,\n  \"expected_time\" : 30,\n  \"version\" : \"2.0\"\n}\n");
}

TEST(ImageInformation, NeedsItsThreeMembersOfTheirTypes) {
  EXPECT_TRUE(parseInformation(kWhole));
  for (const char* text :
       {"", "[]", "null", "{}", "{", "\"text\"", R"({"version": 2, "crc": 1, "expected_time": 30})",
        R"({"version": "2", "crc": -1, "expected_time": 30})",
        R"({"version": "2", "crc": 4294967296, "expected_time": 30})",
        R"({"version": "2", "crc": 1, "expected_time": "30"})", R"({"crc": 1, "expected_time": 30})",
        R"({"version": "2", "expected_time": 30})", R"({"version": "2", "crc": 1})"}) {
    EXPECT_FALSE(parseInformation(text)) << text;
  }
  EXPECT_FALSE(parseInformation(std::string(5000, '[')));
}

// The parser gives up in the middle, and has found the three members by then.
TEST(ImageInformation, IsNothingWhereSomethingBehindItsMembersIsNestedTooDeeply) {
  const std::string members = R"({"version": "2.0", "crc": 1, "expected_time": 30, "more": )";

  EXPECT_TRUE(parseInformation(members + "[[]]}"));
  EXPECT_FALSE(parseInformation(members + std::string(5000, '[')));
}

TEST(ImageChecksum, IsThatOfTheImageFormat) {
  EXPECT_EQ(image::crcOf("123456789"), 0x6A50465CU);
  EXPECT_EQ(image::crcOf(""), 0U);
}

TEST(ImageChecksum, IsTheSameInPieces) {
  image::Crc crc;
  crc.add("1234", 4);
  crc.add("", 0);
  crc.add("56789", 5);

  EXPECT_EQ(crc.value(), 0x6A50465CU);
}

}  // namespace
