// SPDX-License-Identifier: Apache-2.0
// The limits of the privileged service's log, with a clock in the test's hands.
#include "privileged/privileged-log.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "dlog.h"

namespace {

using fwplatform::LimitedRequestLog;
using fwplatform::PrivilegedCaller;
using fwplatform::RequestEnd;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class RequestLog : public ::testing::Test {
 protected:
  static constexpr PrivilegedCaller kCaller = {12, 1000, 1001};

  static PrivilegedCaller of(uid_t uid) { return {7, uid, 8}; }

  void log(RequestEnd end, const PrivilegedCaller& caller, int count) {
    for (int i = 1; i <= count; ++i) {
      log_.log(end, caller, "line " + std::to_string(i));
    }
  }

  LimitedRequestLog::Clock::time_point now_ = LimitedRequestLog::Clock::time_point() + std::chrono::hours(1);
  std::vector<std::string> lines_;
  std::vector<RequestEnd> ends_;
  LimitedRequestLog log_{[this](RequestEnd end, const PrivilegedCaller&, const std::string& text) {
                           ends_.push_back(end);
                           lines_.push_back(text);
                         },
                         [this] { return now_; }};
};

TEST_F(RequestLog, WritesTwentyRefusalsAndTellsTheRestInOneLineWhenTheSpanIsOver) {
  log(RequestEnd::Refused, kCaller, 25);
  ASSERT_THAT(lines_, SizeIs(20));
  EXPECT_EQ(lines_.front(), "line 1");
  EXPECT_EQ(lines_.back(), "line 20");
  lines_.clear();
  ends_.clear();

  now_ += std::chrono::milliseconds(4999);
  log_.tellWhatIsDue();
  EXPECT_THAT(lines_, IsEmpty());
  now_ += std::chrono::milliseconds(1);
  log_.tellWhatIsDue();

  EXPECT_THAT(lines_, ElementsAre("5 more like this of uid 1000 within 5 seconds, the last: line 25"));
  EXPECT_THAT(ends_, ElementsAre(RequestEnd::Refused));
}

TEST_F(RequestLog, TellsNothingWhenNothingWasLeftOut) {
  log(RequestEnd::Refused, kCaller, 20);
  lines_.clear();

  EXPECT_FALSE(log_.nextDue());
  now_ += LimitedRequestLog::kSpan;
  log_.tellWhatIsDue();
  log_.tellAll();

  EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(RequestLog, BeginsAnewAfterTheSpan) {
  log(RequestEnd::Refused, kCaller, 25);
  lines_.clear();
  now_ += LimitedRequestLog::kSpan;

  log(RequestEnd::Refused, kCaller, 21);

  ASSERT_THAT(lines_, SizeIs(21));
  EXPECT_THAT(lines_[0], EndsWith("the last: line 25")) << "what was left out comes first";
  EXPECT_EQ(lines_[1], "line 1");
}

TEST_F(RequestLog, CountsEachUserAndEachEndByItself) {
  log(RequestEnd::Refused, kCaller, 21);
  lines_.clear();

  log(RequestEnd::Refused, of(1001), 1);
  log(RequestEnd::Gone, kCaller, 21);
  log(RequestEnd::Done, kCaller, 501);
  log(RequestEnd::Failed, kCaller, 501);

  EXPECT_THAT(lines_, SizeIs(1 + 20 + 500 + 500));
}

TEST_F(RequestLog, SaysWhenItHasSomethingToTell) {
  log(RequestEnd::Gone, of(1), 20);
  now_ += std::chrono::seconds(1);
  const auto second = now_ + LimitedRequestLog::kSpan;
  log(RequestEnd::Refused, of(2), 21);
  EXPECT_EQ(log_.nextDue(), second);
  now_ += std::chrono::seconds(1);
  log(RequestEnd::Refused, of(3), 21);

  EXPECT_EQ(log_.nextDue(), second) << "the first of them";
  log_.log(RequestEnd::Gone, of(1), "one more");
  EXPECT_EQ(log_.nextDue(), second - std::chrono::seconds(1)) << "begun before";
}

TEST_F(RequestLog, TellsAllOfItAtTheEndAndOnce) {
  log(RequestEnd::Refused, of(1), 22);
  log(RequestEnd::Gone, of(2), 23);
  lines_.clear();

  log_.tellAll();
  log_.tellAll();

  EXPECT_THAT(lines_, ElementsAre("2 more like this of uid 1 within 5 seconds, the last: line 22",
                                  "3 more like this of uid 2 within 5 seconds, the last: line 23"));
}

TEST_F(RequestLog, LetsManyUsersShareOneLimit) {
  for (uid_t user = 0; user < LimitedRequestLog::kMostUsers; ++user) {
    log(RequestEnd::Refused, of(user), 1);
  }
  lines_.clear();

  for (uid_t user = 1000; user < 2000; ++user) {
    log(RequestEnd::Refused, of(user), 1);
  }
  log(RequestEnd::Refused, of(0), 1);
  log(RequestEnd::Gone, of(3000), 1);

  EXPECT_THAT(lines_, SizeIs(20 + 1 + 1)) << "users who were there before keep their own limit";
  lines_.clear();
  log_.tellAll();
  EXPECT_THAT(lines_, ElementsAre("980 more like this of further users within 5 seconds, the last: line 1"));
}

std::vector<std::string> written;

}  // namespace

extern "C" __attribute__((visibility("default"))) int __dlog_print(int, int priority, const char* tag,
                                                                   const char*, ...) {
  written.push_back(std::to_string(priority) + " " + tag);
  return 0;
}

namespace {

TEST(RequestLogLines, AreWarningsUnlessAllWentWell) {
  for (const RequestEnd end : {RequestEnd::Done, RequestEnd::Failed, RequestEnd::Refused, RequestEnd::Gone}) {
    fwplatform::logRequest(end, {}, "text");
  }

  EXPECT_THAT(written, ElementsAre("4 FWUPDATE", "5 FWUPDATE", "5 FWUPDATE", "5 FWUPDATE"));
}

}  // namespace
