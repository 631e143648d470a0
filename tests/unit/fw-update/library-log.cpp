// SPDX-License-Identifier: Apache-2.0
#include "library/library-log.h"

#include <gmock/gmock.h>
#include <stdlib.h>

#include <cerrno>

#include "dlog.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

#define PREFIX "%s: %s(%d) > "

// The library's formats are not literals where it calls the platform either.
template <typename... Arguments>
void print(const char* tag, const char* format, Arguments... arguments) {
  __dlog_print(2, DLOG_ERROR_PRIORITY, tag, format, arguments...);
}

class RecordedLog : public ::testing::Test {
 protected:
  tool::LogMessages recorded() const { return tool::LibraryLog::instance().since(mark_); }

  // The platform chooses its sink at the first message.
  const int sink_ = setenv("FW_UPDATE_LOG", "stderr", 1);
  const std::size_t mark_ = tool::LibraryLog::instance().mark();
};

TEST_F(RecordedLog, KeepsWhereAndWhatTheLibraryLogged) {
  print("FWUPDATE", PREFIX "Error: %s Firmware doUpdate Fail %d (%d:%%)", "file.cpp", "updateFirmware", 12,
        "tunerfw", -5, 7);

  const auto messages = recorded();
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0].priority, 6);
  EXPECT_EQ(messages[0].file, "file.cpp");
  EXPECT_EQ(messages[0].function, "updateFirmware");
  EXPECT_EQ(messages[0].line, 12);
  EXPECT_EQ(messages[0].format, "Error: %s Firmware doUpdate Fail %d (%d:%%)");
  EXPECT_EQ(messages[0].text, "Error: tunerfw Firmware doUpdate Fail -5 (7:%)");
  EXPECT_THAT(messages[0].arguments, ElementsAre("tunerfw", "-5", "7"));
}

TEST_F(RecordedLog, RendersTheErrorTextOfTheCallAndLeavesErrno) {
  errno = ENOSPC;
  print("FWUPDATE", PREFIX "failed (%d:%m)", "f", "g", 1, 28);
  const int after = errno;

  EXPECT_EQ(after, ENOSPC);
  EXPECT_EQ(recorded().at(0).text, "failed (28:No space left on device)");
  EXPECT_THAT(recorded().at(0).arguments, ElementsAre("28", "No space left on device"));
  EXPECT_EQ(recorded().at(0).errorNumber, ENOSPC);
}

TEST_F(RecordedLog, ShowsNullTextsAsThePlatformDoes) {
  print("FWUPDATE", PREFIX "[%s]", "f", "g", 1, static_cast<const char*>(nullptr));

  EXPECT_EQ(recorded().at(0).text, "[(null)]");
  EXPECT_THAT(recorded().at(0).arguments, ElementsAre("(null)"));
}

TEST_F(RecordedLog, HandsEveryMessageOnToThePlatformOnce) {
  ::testing::internal::CaptureStderr();
  errno = EACCES;
  print("FWUPDATE", PREFIX "100%% of %s: %m", "file.cpp", "g", 1, "%s%n");
  const std::string platform = ::testing::internal::GetCapturedStderr();

  EXPECT_THAT(platform, HasSubstr("FWUPDATE file.cpp: g(1) > 100% of %s%n: Permission denied\n"));
  EXPECT_EQ(platform.find("FWUPDATE"), platform.rfind("FWUPDATE"));
}

TEST_F(RecordedLog, KeepsWhatAModuleLogsUnderTheTagAsNoMessageOfTheLibrary) {
  ::testing::internal::CaptureStderr();
  print("FWUPDATE", "libtuner: failed at %d percent", 60);
  const std::string platform = ::testing::internal::GetCapturedStderr();

  ASSERT_EQ(recorded().size(), 1u);
  EXPECT_EQ(recorded()[0].format, "");
  EXPECT_EQ(recorded()[0].text, "libtuner: failed at 60 percent");
  EXPECT_THAT(platform, HasSubstr("FWUPDATE libtuner: failed at 60 percent\n"));
}

TEST_F(RecordedLog, HandsOnWithoutKeepingWhatModulesLogUnderOtherTags) {
  ::testing::internal::CaptureStderr();
  print("TUNER", "voltage %d", 5);
  print("TUNER", PREFIX "voltage %d", "f", "g", 1, 6);
  const std::string platform = ::testing::internal::GetCapturedStderr();

  EXPECT_THAT(recorded(), IsEmpty());
  EXPECT_THAT(platform, HasSubstr("TUNER voltage 5\n"));
  EXPECT_THAT(platform, HasSubstr("TUNER f: g(1) > voltage 6\n"));
}

TEST_F(RecordedLog, TakesCallsWithoutTagOrFormat) {
  const char* const none = nullptr;
  ::testing::internal::CaptureStderr();
  print(none, PREFIX "text %d", "f", "g", 1, 2);
  print("FWUPDATE", none, 1);
  const std::string platform = ::testing::internal::GetCapturedStderr();

  EXPECT_THAT(recorded(), IsEmpty());
  EXPECT_THAT(platform, HasSubstr("f: g(1) > text 2\n"));
}

TEST_F(RecordedLog, IsReadFromAMarkOn) {
  print("FWUPDATE", PREFIX "before", "f", "g", 1);
  const std::size_t mark = tool::LibraryLog::instance().mark();
  print("FWUPDATE", PREFIX "after", "f", "g", 1);

  const auto messages = tool::LibraryLog::instance().since(mark);
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0].text, "after");
}

}  // namespace
