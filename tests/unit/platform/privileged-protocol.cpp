// SPDX-License-Identifier: Apache-2.0
// The bytes of docs/formats/privileged-protocol.md.
#include "privileged/privileged-protocol.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

namespace {

using fwplatform::decodePrivilegedAnswer;
using fwplatform::decodePrivilegedMessage;
using fwplatform::encodePrivilegedAnswer;
using fwplatform::encodePrivilegedMessage;
using fwplatform::PrivilegedOperation;

template <std::size_t Size>
std::string bytes(const char (&literal)[Size]) {
  return std::string(literal, Size - 1);
}

TEST(PrivilegedProtocol, TakesAMessageWithoutAText) {
  const auto message = fwplatform::decodePrivilegedMessage("FWPS\x01\x03");

  ASSERT_TRUE(message);
  EXPECT_EQ(message->operation, fwplatform::PrivilegedOperation::Umount);
  EXPECT_TRUE(message->text.empty());
  EXPECT_FALSE(fwplatform::decodePrivilegedMessage("FWPS\x01"));
}

TEST(PrivilegedProtocol, WritesARequest) {
  EXPECT_EQ(encodePrivilegedMessage(PrivilegedOperation::Mount, bytes("-o x\0")),
            bytes("FWPS\x01\x01-o x\0"));
  EXPECT_EQ(encodePrivilegedMessage(PrivilegedOperation::Mknod, "n"), bytes("FWPS\x01\x02n"));
  EXPECT_EQ(encodePrivilegedMessage(PrivilegedOperation::Umount, ""), bytes("FWPS\x01\x03"));
}

TEST(PrivilegedProtocol, WritesTheExamplesOfItsDescription) {
  EXPECT_EQ(
      encodePrivilegedMessage(PrivilegedOperation::Umount, "/opt/usr/apps/appbinarymanager/emps/a"),
      bytes("\x46\x57\x50\x53\x01\x03\x2f\x6f\x70\x74\x2f\x75\x73\x72\x2f\x61\x70\x70\x73\x2f"
            "\x61\x70\x70\x62\x69\x6e\x61\x72\x79\x6d\x61\x6e\x61\x67\x65\x72\x2f\x65\x6d\x70\x73\x2f\x61"));
  EXPECT_EQ(encodePrivilegedAnswer({0, 22}), bytes("\x46\x57\x50\x53\x01\0\0\0\0\0\x16\0\0\0"));
}

TEST(PrivilegedProtocol, ReadsARequest) {
  const std::string request = bytes("FWPS\x01\x02text\0");

  const auto message = decodePrivilegedMessage(request);

  ASSERT_TRUE(message);
  EXPECT_EQ(message->operation, PrivilegedOperation::Mknod);
  EXPECT_EQ(message->text, bytes("text\0"));
}

TEST(PrivilegedProtocol, TakesNoOtherBytesForARequest) {
  const std::string longest = bytes("FWPS\x01\x01") + std::string(1024, 'a');
  ASSERT_TRUE(decodePrivilegedMessage(longest));

  for (const std::string& bytes : {std::string(), bytes("F"), bytes("FWPS\x01"), bytes("fwps\x01\x01"),
                                   bytes("FWPS\x02\x01"), longest + "a"}) {
    EXPECT_FALSE(decodePrivilegedMessage(bytes)) << bytes;
  }
}

TEST(PrivilegedProtocol, WritesAnAnswer) {
  EXPECT_EQ(encodePrivilegedAnswer({0, 0}), bytes("FWPS\x01\0\0\0\0\0\0\0\0\0"));
  EXPECT_EQ(encodePrivilegedAnswer({-1, 22}), bytes("FWPS\x01\0\xFF\xFF\xFF\xFF\x16\0\0\0"));
  EXPECT_EQ(encodePrivilegedAnswer({0x01020304, 0}), bytes("FWPS\x01\0\x04\x03\x02\x01\0\0\0\0"));
}

TEST(PrivilegedProtocol, ReadsTheAnswersThatItWrites) {
  for (const int number : {0, 1, -1, 255, -256, 65536, INT_MAX, INT_MIN}) {
    const auto answer = decodePrivilegedAnswer(encodePrivilegedAnswer({number, ~number}));

    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status, number);
    EXPECT_EQ(answer->result, ~number);
  }
}

TEST(PrivilegedProtocol, TakesNoOtherBytesForAnAnswer) {
  const std::string good = encodePrivilegedAnswer({0, 0});

  for (const std::string& bytes :
       {std::string(), good.substr(1), good.substr(0, 13), good + bytes("\0"),
        bytes("FWPS\x01\x01\0\0\0\0\0\0\0\0"), bytes("FWPX\x01\0\0\0\0\0\0\0\0\0")}) {
    EXPECT_FALSE(decodePrivilegedAnswer(bytes));
  }
}

}  // namespace
