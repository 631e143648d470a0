// The bytes of docs/formats/privileged-protocol.md.
#include "privileged/privileged-protocol.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

namespace {

using fwplatform::DecodePrivilegedAnswer;
using fwplatform::DecodePrivilegedMessage;
using fwplatform::EncodePrivilegedAnswer;
using fwplatform::EncodePrivilegedMessage;
using fwplatform::PrivilegedOperation;

template <std::size_t size>
std::string Bytes(const char (&literal)[size]) {
  return std::string(literal, size - 1);
}

TEST(PrivilegedProtocol, TakesAMessageWithoutAText) {
  const auto message = fwplatform::DecodePrivilegedMessage("FWPS\x01\x03");

  ASSERT_TRUE(message);
  EXPECT_EQ(message->operation, fwplatform::PrivilegedOperation::kUmount);
  EXPECT_TRUE(message->text.empty());
  EXPECT_FALSE(fwplatform::DecodePrivilegedMessage("FWPS\x01"));
}

TEST(PrivilegedProtocol, WritesARequest) {
  EXPECT_EQ(EncodePrivilegedMessage(PrivilegedOperation::kMount, Bytes("-o x\0")),
            Bytes("FWPS\x01\x01-o x\0"));
  EXPECT_EQ(EncodePrivilegedMessage(PrivilegedOperation::kMknod, "n"), Bytes("FWPS\x01\x02n"));
  EXPECT_EQ(EncodePrivilegedMessage(PrivilegedOperation::kUmount, ""), Bytes("FWPS\x01\x03"));
}

TEST(PrivilegedProtocol, WritesTheExamplesOfItsDescription) {
  EXPECT_EQ(
      EncodePrivilegedMessage(PrivilegedOperation::kUmount, "/opt/usr/apps/appbinarymanager/emps/a"),
      Bytes("\x46\x57\x50\x53\x01\x03\x2f\x6f\x70\x74\x2f\x75\x73\x72\x2f\x61\x70\x70\x73\x2f"
            "\x61\x70\x70\x62\x69\x6e\x61\x72\x79\x6d\x61\x6e\x61\x67\x65\x72\x2f\x65\x6d\x70\x73\x2f\x61"));
  EXPECT_EQ(EncodePrivilegedAnswer({0, 22}), Bytes("\x46\x57\x50\x53\x01\0\0\0\0\0\x16\0\0\0"));
}

TEST(PrivilegedProtocol, ReadsARequest) {
  const std::string bytes = Bytes("FWPS\x01\x02text\0");

  const auto message = DecodePrivilegedMessage(bytes);

  ASSERT_TRUE(message);
  EXPECT_EQ(message->operation, PrivilegedOperation::kMknod);
  EXPECT_EQ(message->text, Bytes("text\0"));
}

TEST(PrivilegedProtocol, TakesNoOtherBytesForARequest) {
  const std::string longest = Bytes("FWPS\x01\x01") + std::string(1024, 'a');
  ASSERT_TRUE(DecodePrivilegedMessage(longest));

  for (const std::string& bytes : {std::string(), Bytes("F"), Bytes("FWPS\x01"), Bytes("fwps\x01\x01"),
                                   Bytes("FWPS\x02\x01"), longest + "a"}) {
    EXPECT_FALSE(DecodePrivilegedMessage(bytes)) << bytes;
  }
}

TEST(PrivilegedProtocol, WritesAnAnswer) {
  EXPECT_EQ(EncodePrivilegedAnswer({0, 0}), Bytes("FWPS\x01\0\0\0\0\0\0\0\0\0"));
  EXPECT_EQ(EncodePrivilegedAnswer({-1, 22}), Bytes("FWPS\x01\0\xFF\xFF\xFF\xFF\x16\0\0\0"));
  EXPECT_EQ(EncodePrivilegedAnswer({0x01020304, 0}), Bytes("FWPS\x01\0\x04\x03\x02\x01\0\0\0\0"));
}

TEST(PrivilegedProtocol, ReadsTheAnswersThatItWrites) {
  for (const int number : {0, 1, -1, 255, -256, 65536, INT_MAX, INT_MIN}) {
    const auto answer = DecodePrivilegedAnswer(EncodePrivilegedAnswer({number, ~number}));

    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status, number);
    EXPECT_EQ(answer->result, ~number);
  }
}

TEST(PrivilegedProtocol, TakesNoOtherBytesForAnAnswer) {
  const std::string good = EncodePrivilegedAnswer({0, 0});

  for (const std::string& bytes :
       {std::string(), good.substr(1), good.substr(0, 13), good + Bytes("\0"),
        Bytes("FWPS\x01\x01\0\0\0\0\0\0\0\0"), Bytes("FWPX\x01\0\0\0\0\0\0\0\0\0")}) {
    EXPECT_FALSE(DecodePrivilegedAnswer(bytes));
  }
}

}  // namespace
