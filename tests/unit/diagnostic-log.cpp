// SPDX-License-Identifier: Apache-2.0
#include "diagnostic-log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <thread>

#include "fw-update-types.h"
#include "recording-platform.h"

using ::testing::ElementsAre;

namespace {

class DiagnosticLog : public ::testing::Test {
 protected:
  void SetUp() override { recording::reset(); }
};

std::string bytesOf(int value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
}

std::string payloadOf(const char* text) {
  recording::reset();
  FW_LOG(diagnostics::kError, "text %s", text);
  return recording::traceRecords().at(0).payload;
}

void logOnce(int value) {
  FW_LOG(diagnostics::kError, "value %d", value);
}

}  // namespace

TEST_F(DiagnosticLog, WritesPrefixAndMessageWithTheFixedIdAndTag) {
  FW_LOG(diagnostics::kError, "Error : %s", "it broke");
  const int line = __LINE__ - 1;

  const recording::LogLine written = recording::logLines().at(0);
  EXPECT_EQ(written.logId, 2);
  EXPECT_EQ(written.priority, 6);
  EXPECT_EQ(written.tag, "FWUPDATE");
  EXPECT_EQ(written.format, "%s: %s(%d) > Error : %s");
  EXPECT_EQ(written.file, "diagnostic-log.cpp");
  EXPECT_EQ(written.function, "TestBody");
  EXPECT_EQ(written.line, line);
  EXPECT_EQ(written.text, "Error : it broke");
}

TEST_F(DiagnosticLog, RegistersTheSiteWithPathFunctionLineAndArgumentDescription) {
  FW_LOG(diagnostics::kError, "%s %d %d %d", "a", 1, 2U, CALLER_LSM);
  const int line = __LINE__ - 1;

  const recording::Location location = recording::traceLocations().at(0);
  EXPECT_EQ(location.sourcePath, __FILE__);
  EXPECT_EQ(location.functionName, "TestBody");
  EXPECT_EQ(location.line, line);
  EXPECT_EQ(location.format, "%s %d %d %d");
  EXPECT_NE(location.id, 0U);
  ASSERT_EQ(location.arguments.size(), 4U);
  const char* const names[] = {"char const*", "int", "unsigned int", "CallerTypes"};
  const unsigned int sizes[] = {0x3FFF, 4, 4, 4};
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(location.arguments[i].typeName, names[i]);
    EXPECT_EQ(location.arguments[i].flag, 1U);
    EXPECT_EQ(location.arguments[i].size, sizes[i]);
  }
}

TEST_F(DiagnosticLog, RegistersEachSiteOnce) {
  logOnce(1);
  logOnce(2);

  EXPECT_EQ(recording::traceLocations().size(), 1U);
  const auto records = recording::traceRecords();
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].locationId, recording::traceLocations()[0].id);
  EXPECT_EQ(records[1].locationId, recording::traceLocations()[0].id);
  EXPECT_EQ(records[0].kind, 1U);
  EXPECT_EQ(records[0].payload, bytesOf(1));
  EXPECT_EQ(records[1].payload, bytesOf(2));
}

TEST_F(DiagnosticLog, EncodesArgumentsInOrderWithoutSeparators) {
  FW_LOG(diagnostics::kError, "%d %s %d", -2, "ab", 0x01020304);

  EXPECT_EQ(recording::traceRecords().at(0).payload, bytesOf(-2) + "\x02" + "ab" + bytesOf(0x01020304));
}

TEST_F(DiagnosticLog, WritesAnEmptyRecordForAMessageWithoutArguments) {
  FW_LOG(diagnostics::kError, "lstat error\n");

  EXPECT_EQ(recording::traceRecords().at(0).payload, "");
  EXPECT_EQ(recording::traceLocations().at(0).format, "lstat error\n");
  EXPECT_THAT(recording::texts(), ElementsAre("lstat error\n"));
}

TEST_F(DiagnosticLog, PrefixesTextsWithOneOrTwoLengthBytes) {
  EXPECT_EQ(payloadOf(""), std::string(1, '\0'));
  EXPECT_EQ(payloadOf(std::string(127, 'x').c_str()), "\x7F" + std::string(127, 'x'));
  EXPECT_EQ(payloadOf(std::string(128, 'x').c_str()), std::string("\x80\x01", 2) + std::string(128, 'x'));
  EXPECT_EQ(payloadOf(std::string(300, 'x').c_str()), std::string("\xAC\x02", 2) + std::string(300, 'x'));
  EXPECT_EQ(payloadOf(std::string(16382, 'x').c_str()), std::string("\xFE\x7F", 2) + std::string(16382, 'x'));
}

TEST_F(DiagnosticLog, KeepsToTheReservedSizeForTextsThatAreNotRepresentable) {
  EXPECT_EQ(payloadOf(std::string(16383, 'x').c_str()), std::string("\xFF\x7F", 2) + std::string(16383, 'x'));

  const std::string payload = payloadOf(std::string(20000, 'x').c_str());
  EXPECT_EQ(payload.size(), 20003U);
  EXPECT_EQ(payload.substr(2, 20000), std::string(20000, 'x'));
  EXPECT_EQ(payload.back(), '\0');

  recording::reset();
  FW_LOG(diagnostics::kError, "%s %d", std::string(20000, 'x').c_str(), 0x01020304);
  EXPECT_EQ(recording::traceRecords().at(0).payload.substr(20003), bytesOf(0x01020304));
}

TEST_F(DiagnosticLog, WritesThePlatformLogFirst) {
  std::size_t recordsAtMessage = 1;
  recording::onMessage(
      [&](const recording::LogLine&) { recordsAtMessage = recording::traceRecords().size(); });

  FW_LOG(diagnostics::kError, "value %d", 5);

  EXPECT_EQ(recordsAtMessage, 0U) << "before the trace's work could change errno";
  EXPECT_EQ(recording::traceRecords().size(), 1U);
}

TEST_F(DiagnosticLog, StoresANullTextAsItsMarkerAndLogsItReadably) {
  const char* const none = nullptr;

  FW_LOG(diagnostics::kError, "text %s", none);

  EXPECT_EQ(recording::traceRecords().at(0).payload, "\xFF\x7F");
  EXPECT_THAT(recording::texts(), ElementsAre("text (null)"));
}

// The C library shows nothing of a null text that is to be cut off.
TEST_F(DiagnosticLog, GivesThePlatformLogNoNullText) {
  const char* const none = nullptr;

  FW_LOG(diagnostics::kError, "text %.3s", none);
  FW_LOG(diagnostics::kInfo, "text %.4s", none);

  EXPECT_THAT(recording::texts(), ElementsAre("text (nu", "text (nul"));
  EXPECT_EQ(recording::traceRecords().at(0).payload, "\xFF\x7F");
}

TEST_F(DiagnosticLog, WritesInfoAndDebugToThePlatformLogAlone) {
  FW_LOG(diagnostics::kInfo, "SWModel : %s", "X-Y");
  FW_LOG(diagnostics::kDebug, "STATE [%d]", 0);

  ASSERT_EQ(recording::logLines().size(), 2U);
  EXPECT_EQ(recording::logLines()[0].priority, 4);
  EXPECT_EQ(recording::logLines()[1].priority, 3);
  EXPECT_TRUE(recording::traceRecords().empty());
  EXPECT_TRUE(recording::traceLocations().empty());
}

TEST_F(DiagnosticLog, DoesNoTraceWorkWhileTracingIsOff) {
  TraceStorage::enabled = 0;

  FW_LOG(diagnostics::kError, "value %d", 5);

  EXPECT_TRUE(recording::traceLocations().empty());
  EXPECT_TRUE(recording::traceRecords().empty());
  EXPECT_THAT(recording::texts(), ElementsAre("value 5"));
}

TEST_F(DiagnosticLog, DropsTheRecordThatGetsNoBuffer) {
  recording::answers().dropTraceRecords = true;

  FW_LOG(diagnostics::kError, "value %d", 5);

  EXPECT_EQ(recording::traceLocations().size(), 1U);
  EXPECT_TRUE(recording::traceRecords().empty());
}

TEST_F(DiagnosticLog, RendersTheErrorOfTheTimeOfTheCall) {
  errno = ENOSPC;

  FW_LOG_AS("updateFirmware", diagnostics::kError, "(%d)", errno);

  EXPECT_THAT(recording::messages(),
              ElementsAre("6 diagnostic-log.cpp updateFirmware (" + std::to_string(ENOSPC) + ")"));
}

TEST_F(DiagnosticLog, CommitsEveryRecordOfSeveralThreads) {
  constexpr int kCount = 200;
  const auto work = [] {
    for (int i = 0; i < kCount; ++i) {
      logOnce(i);
    }
  };

  std::thread other(work);
  work();
  other.join();

  EXPECT_EQ(recording::traceRecords().size(), 2U * kCount);
  EXPECT_EQ(recording::logLines().size(), 2U * kCount);
}
