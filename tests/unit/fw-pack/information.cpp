// SPDX-License-Identifier: Apache-2.0
#include "information.h"

#include <gmock/gmock.h>

#include <fstream>
#include <string>

#include "exit-code.h"

namespace {

using fwpack::Information;
using fwpack::parseInformation;

constexpr char kWhole[] = R"({"version": "2.0", "crc": 4294967295, "expected_time": 30})";

TEST(PackInformation, IsReadAsItWasWritten) {
  const auto read = parseInformation(toText(Information{"2.0 \xc3\xbc", 4000000000U, 4294967295U}));

  ASSERT_TRUE(read);
  EXPECT_EQ(read->version, "2.0 \xc3\xbc");
  EXPECT_EQ(read->crc, 4000000000U);
  EXPECT_EQ(read->expectedTime, 4294967295U);
}

TEST(PackInformation, HasALayoutForPeople) {
  EXPECT_EQ(toText(Information{"2.0", 1, 30}),
            "{\n  \"crc\" : 1,\n  \"expected_time\" : 30,\n  \"version\" : \"2.0\"\n}\n");
}

TEST(PackInformation, NeedsItsThreeMembersOfTheirTypes) {
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

TEST(PackInformation, IsMadeOfAnImageThatIsNotEmpty) {
  const fwpack::TemporaryDirectory directory;
  const std::string path = directory.path() + "/image";
  std::ofstream(path) << "";
  EXPECT_THROW(fwpack::describe(fwpack::InputFile(path), "2.0", 30), fwpack::Failure);

  std::ofstream(path) << "image";
  const Information made = fwpack::describe(fwpack::InputFile(path), "2.0", 30);
  EXPECT_EQ(made.version, "2.0");
  EXPECT_EQ(made.crc, fwpack::imageCrc(fwpack::InputFile(path)));
  EXPECT_EQ(made.expectedTime, 30U);
}

}  // namespace
