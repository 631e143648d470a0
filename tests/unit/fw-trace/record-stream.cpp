// SPDX-License-Identifier: Apache-2.0
#include "record-stream.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <filesystem>
#include <fstream>

#include "temporary-folder.h"
#include "trace-builder.h"

namespace {

using namespace tracetool;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Traces : public ::testing::Test {
 protected:
  std::string put(const std::string& name, const TraceBuilder& trace) const {
    std::string path = folder_.path() + "/" + name;
    std::ofstream(path, std::ios::binary) << trace.bytes();
    return path;
  }

  static TraceBuilder saying(const std::vector<std::pair<int, std::string>>& messages) {
    TraceBuilder trace;
    const std::uint32_t place = trace.place("work", "%s", "s");
    for (const auto& [time, text] : messages) {
      trace.record(place, 77, time, {text});
    }
    return trace;
  }

  static std::vector<std::string> textsOf(std::list<TraceReading>& readings) {
    std::vector<std::string> texts;
    for (RecordStream stream(readings); stream.next();) {
      texts.push_back(stream.message().text);
    }
    return texts;
  }

  base::TemporaryFolder folder_{"/tmp/traces-"};
};

TEST_F(Traces, ComeInTimeOrderOverAllOfThem) {
  std::list<TraceReading> readings;
  readings.emplace_back(openTrace(put("a", saying({{10, "one"}, {40, "four"}}))));
  readings.emplace_back(openTrace(put("b", saying({{20, "two"}, {30, "three"}, {40, "five"}}))));

  EXPECT_THAT(textsOf(readings), ElementsAre("one", "two", "three", "four", "five"));
}

TEST_F(Traces, AreReadOnce) {
  std::list<TraceReading> readings;
  readings.emplace_back(openTrace(put("a", saying({{10, "one"}}))));
  textsOf(readings);

  EXPECT_THAT(textsOf(readings), IsEmpty());
}

TEST_F(Traces, AreReadOnWhileTheirProcessLives) {
  const TraceBuilder trace = saying({{10, "one"}, {20, "two"}});
  const std::string path = put("a", trace);
  const base::FileDescriptor process(open(path.c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(flock(process.get(), LOCK_EX), 0);
  const auto writeUpTo = [&](std::uint64_t head) {
    const auto at = static_cast<off_t>(trace.ringOffset() + offsetof(fwplatform::trace::ChunkHeader, head));
    ASSERT_EQ(pwrite(process.get(), &head, sizeof head, at), static_cast<ssize_t>(sizeof head));
  };
  writeUpTo(32);
  std::list<TraceReading> readings;
  readings.emplace_back(openTrace(path));
  ASSERT_THAT(textsOf(readings), ElementsAre("one"));
  writeUpTo(64);

  EXPECT_TRUE(readings.front().readOn());

  EXPECT_THAT(textsOf(readings), ElementsAre("two"));
}

TEST_F(Traces, AreNotReadOnWhenAnotherFileHasTheirName) {
  const std::string path = put("a", saying({{10, "one"}}));
  std::list<TraceReading> readings;
  readings.emplace_back(openTrace(path));
  textsOf(readings);
  std::filesystem::rename(put("b", saying({{10, "one"}, {20, "another's"}})), path);
  const base::FileDescriptor process(open(path.c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(flock(process.get(), LOCK_EX), 0);

  EXPECT_FALSE(readings.front().readOn());

  EXPECT_THAT(textsOf(readings), IsEmpty());
}

TEST_F(Traces, CountMessagesWhoseArgumentsDoNotFit) {
  TraceBuilder trace;
  trace.rawRecord(trace.place("work", "%d", "d"), 1, 1, fwplatform::trace::Call, "x");
  std::list<TraceReading> readings;
  readings.emplace_back(openTrace(put("a", trace)));

  textsOf(readings);

  EXPECT_EQ(readings.front().damaged, 1U);
}

}  // namespace
