// SPDX-License-Identifier: Apache-2.0
#include "trace-reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "message.h"
#include "trace-builder.h"

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::size_t kChunkHeader = sizeof(fwplatform::trace::ChunkHeader);
constexpr std::size_t kRecordSize = 32;  // of a record with one number

// Ten records that carry their number.
TraceBuilder tenRecords() {
  TraceBuilder builder;
  const std::uint32_t place = builder.place("work", "number %d", "d");
  for (int i = 0; i < 10; ++i) {
    builder.record(place, 77, i, {i});
  }
  return builder;
}

std::vector<std::string> textsOf(const std::string& bytes, std::vector<std::string>* skipped = nullptr) {
  auto result = tracetool::readTrace(bytes);
  EXPECT_EQ(result.problem, "");
  std::vector<std::string> texts;
  for (const auto& message : tracetool::messagesOf(result.trace)) {
    texts.push_back(message.text);
  }
  if (skipped != nullptr) {
    *skipped = result.trace.skipped;
  }
  return texts;
}

void put(std::string& bytes, std::size_t offset, std::uint64_t number) {
  std::memcpy(bytes.data() + offset, &number, sizeof number);
}

TEST(TraceReader, ReadsProcessPlacesAndRecords) {
  auto result = tracetool::readTrace(tenRecords().bytes());

  EXPECT_EQ(result.problem, "");
  EXPECT_THAT(result.trace.skipped, IsEmpty());
  EXPECT_EQ(result.trace.processId, 77U);
  EXPECT_EQ(result.trace.processName, "service");
  EXPECT_EQ(result.trace.commandLine, "service --run");
  ASSERT_THAT(result.trace.records, SizeIs(10));
  EXPECT_EQ(result.trace.records[3].time, 1800000000000000003);
}

TEST(TraceReader, PutsTheRecordsOfAllThreadsInTimeOrder) {
  TraceBuilder builder;
  const std::uint32_t place = builder.place("work", "at %d", "d");
  builder.record(place, 1, 300, {3}).record(place, 2, 100, {1}).record(place, 1, 200, {2});

  EXPECT_THAT(textsOf(builder.bytes()), ElementsAre("at 1", "at 2", "at 3"));
}

TEST(TraceReader, RefusesWhatIsNoTraceAndSaysWhy) {
  TraceBuilder newer;
  newer.header.version = 2;
  TraceBuilder otherOrder;
  otherOrder.header.byteOrder = 0x04030201;
  TraceBuilder broken;
  broken.header.headerSize = 3;

  EXPECT_THAT(tracetool::readTrace("").problem, HasSubstr("too short"));
  EXPECT_THAT(tracetool::readTrace(std::string(5000, 'x')).problem, HasSubstr("no trace"));
  EXPECT_THAT(tracetool::readTrace(newer.bytes()).problem, HasSubstr("version 2"));
  EXPECT_THAT(tracetool::readTrace(otherOrder.bytes()).problem, HasSubstr("byte order"));
  EXPECT_THAT(tracetool::readTrace(broken.bytes()).problem, HasSubstr("damaged"));
}

TEST(TraceReader, ReadsAFileThatIsCutOffAnywhere) {
  const std::string whole = tenRecords().bytes();
  const std::size_t ring = tenRecords().ringOffset() + kChunkHeader;

  for (std::size_t size = sizeof(fwplatform::trace::FileHeader); size < whole.size(); ++size) {
    std::vector<std::string> skipped;
    const auto texts = textsOf(whole.substr(0, size), &skipped);

    ASSERT_EQ(texts.size(), size < ring ? 0 : (size - ring) / kRecordSize) << size;
    // Between two parts nothing tells that there was another one.
    if (size != sizeof(fwplatform::trace::FileHeader) && size != tenRecords().ringOffset()) {
      ASSERT_FALSE(skipped.empty()) << size;
    }
  }
}

TEST(TraceReader, LeavesOutADamagedRecordAndFindsTheNext) {
  const TraceBuilder builder = tenRecords();
  std::string bytes = builder.bytes();
  bytes[builder.ringOffset() + kChunkHeader + 4 * kRecordSize + 5] ^= 0x40;  // the stamp

  std::vector<std::string> skipped;
  const auto texts = textsOf(bytes, &skipped);

  EXPECT_THAT(texts, ElementsAre("number 0", "number 1", "number 2", "number 3", "number 5", "number 6",
                                 "number 7", "number 8", "number 9"));
  EXPECT_THAT(skipped, ElementsAre(HasSubstr("32 bytes")));
}

TEST(TraceReader, LeavesOutARecordThatWasNotWrittenToItsEnd) {
  const TraceBuilder builder = tenRecords();
  std::string bytes = builder.bytes();
  put(bytes, builder.ringOffset() + 16, 10 * kRecordSize - 8);  // head

  std::vector<std::string> skipped;
  const auto texts = textsOf(bytes, &skipped);

  ASSERT_THAT(texts, SizeIs(9));
  EXPECT_EQ(texts.back(), "number 8");
  EXPECT_THAT(skipped, ElementsAre(HasSubstr("24 bytes")));
}

TEST(TraceReader, TakesTheFillingAtTheEndOfARingForNoRecord) {
  TraceBuilder builder = tenRecords();
  builder.rawRecord(1, 77, 10, fwplatform::trace::Padding, "not a record");

  std::vector<std::string> skipped;
  const auto texts = textsOf(builder.bytes(), &skipped);

  EXPECT_THAT(texts, SizeIs(10));
  EXPECT_THAT(skipped, IsEmpty());
}

TEST(TraceReader, LeavesOutARingWhoseEndsMakeNoSense) {
  const TraceBuilder builder = tenRecords();
  for (const std::uint64_t head : {std::uint64_t{321}, std::uint64_t{1} << 60, ~std::uint64_t{0}}) {
    std::string bytes = builder.bytes();
    put(bytes, builder.ringOffset() + 16, head);

    std::vector<std::string> skipped;
    const auto texts = textsOf(bytes, &skipped);

    EXPECT_THAT(texts, IsEmpty());
    EXPECT_THAT(skipped, ElementsAre(HasSubstr("damaged")));
  }
}

TEST(TraceReader, ComesToAnEndWithARingLargerThanTheFile) {
  const TraceBuilder builder = tenRecords();
  std::string bytes = builder.bytes();
  put(bytes, builder.ringOffset() + 8, std::uint64_t{1} << 60);   // size
  put(bytes, builder.ringOffset() + 16, std::uint64_t{1} << 59);  // head

  std::vector<std::string> skipped;

  EXPECT_THAT(textsOf(bytes, &skipped), SizeIs(10));
  EXPECT_THAT(skipped, SizeIs(2));
}

TEST(TraceReader, ReadsThePlacesBeforeADamagedOne) {
  TraceBuilder builder;
  const std::uint32_t first = builder.place("work", "first", "");
  const std::uint32_t second = builder.place("work", "second", "");
  builder.record(first, 1, 1, {}).record(second, 1, 2, {});
  std::string bytes = builder.bytes();
  const std::size_t firstPlace = builder.placesOffset() + kChunkHeader;
  std::uint32_t size = 0;
  std::memcpy(&size, bytes.data() + firstPlace, sizeof size);
  std::memset(bytes.data() + firstPlace + size, 0xFF, sizeof size);

  std::vector<std::string> skipped;
  const auto texts = textsOf(bytes, &skipped);

  EXPECT_THAT(texts, ElementsAre("first", "(a message of an unknown place) <>"));
  EXPECT_THAT(skipped, ElementsAre(HasSubstr("list of places is damaged")));
}

TEST(TraceReader, SaysOnceThatAPartOfThePlacesIsMissing) {
  TraceBuilder builder;
  const std::uint32_t place = builder.place("work", "first", "");
  builder.record(place, 1, 1, {});
  std::string bytes = builder.bytes();
  put(bytes, builder.placesOffset() + 16, std::uint64_t{builder.ringOffset()});  // head, more than there is

  std::vector<std::string> skipped;
  const auto texts = textsOf(bytes, &skipped);

  EXPECT_THAT(texts, ElementsAre("first"));
  EXPECT_THAT(skipped, Contains(HasSubstr("list of places at byte")).Times(1));
  EXPECT_THAT(skipped, Contains(HasSubstr("is missing")).Times(1));
}

TEST(TraceReader, LeavesOutARecordWithATimeThatNoClockShows) {
  TraceBuilder builder;
  const std::uint32_t place = builder.place("work", "at %d", "d");
  builder.record(place, 1, INT64_MIN, {1}).record(place, 1, 5, {2}).record(place, 1, INT64_MAX, {3});

  std::vector<std::string> skipped;

  EXPECT_THAT(textsOf(builder.bytes(), &skipped), ElementsAre("at 2"));
  EXPECT_THAT(skipped, SizeIs(2));
}

TEST(TraceReader, TakesAsManyArgumentsAsAPlaceMayHave) {
  TraceBuilder builder;
  const std::uint32_t most = builder.place("work", "most", std::string(64, 'd'));
  const std::uint32_t more = builder.place("work", "more", std::string(65, 'd'));
  builder.record(most, 1, 1, std::vector<Argument>(64, 7)).record(more, 1, 2, std::vector<Argument>(65, 7));

  std::vector<std::string> skipped;
  const auto texts = textsOf(builder.bytes(), &skipped);

  EXPECT_THAT(texts, ElementsAre("most", HasSubstr("unknown place")));
  EXPECT_THAT(skipped, ElementsAre(HasSubstr("A damaged place")));
}

TEST(TraceReader, TakesAsManyPlacesAsAProcessWrites) {
  TraceBuilder builder;
  std::uint32_t last = 0;
  for (int i = 0; i < 16; ++i) {
    last = builder.place("work", std::string(65000, '.'), "");
  }
  builder.record(last, 1, 1, {});
  EXPECT_THAT(textsOf(builder.bytes()), ElementsAre(std::string(65000, '.')));
  builder.place("work", std::string(65000, '.'), "");

  std::vector<std::string> skipped;
  const auto texts = textsOf(builder.bytes(), &skipped);

  EXPECT_THAT(texts, ElementsAre(HasSubstr("unknown place")));
  EXPECT_THAT(skipped, ElementsAre(HasSubstr("more places than a trace has")));
}

TEST(TraceReader, TakesTheNewestOfTooManyRecords) {
  constexpr std::size_t kExtra = 10;
  TraceBuilder builder;
  const std::uint32_t place = builder.place("work", "at", "");
  for (std::size_t i = 0; i < 2 * tracetool::kMaximumRecords + kExtra; ++i) {
    builder.record(place, 1, static_cast<std::int64_t>(i), {});
  }

  const auto trace = tracetool::readTrace(builder.bytes()).trace;

  ASSERT_THAT(trace.records, SizeIs(tracetool::kMaximumRecords));
  EXPECT_EQ(trace.records.front().time - trace.start,
            static_cast<std::int64_t>(tracetool::kMaximumRecords + kExtra));
  EXPECT_THAT(trace.skipped, ElementsAre(HasSubstr("The oldest 1000010 records are left out")));
}

TEST(TraceReader, NamesArgumentsThatDoNotFitTheirPlace) {
  TraceBuilder builder;
  const std::uint32_t place = builder.place("work", "%s and %d", "sd");
  builder.rawRecord(place, 1, 1, 1, "\x7Fshort");

  std::vector<std::string> skipped;
  const auto texts = textsOf(builder.bytes(), &skipped);

  EXPECT_THAT(texts, ElementsAre("short and <missing>"));
  EXPECT_THAT(skipped, ElementsAre(HasSubstr("1 messages have arguments that do not fit")));
}

}  // namespace
