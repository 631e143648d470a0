// SPDX-License-Identifier: Apache-2.0
#include "ring-reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "trace-builder.h"
#include "trace-reader.h"

namespace {

using namespace tracetool;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// Bytes that others write to while they are read.
class ChangingBytes : public TraceBytes {
 public:
  explicit ChangingBytes(std::string bytes) : bytes_(std::move(bytes)) {}

  std::uint64_t size() const override { return bytes_.size(); }
  std::size_t readAt(std::uint64_t offset, char* to, std::size_t size) const override {
    const std::size_t count = BytesInMemory(bytes_).readAt(offset, to, size);
    largest = std::max(largest, count);
    if (afterRead) {
      afterRead();
    }
    return count;
  }
  void put(std::size_t offset, std::uint64_t number) {
    std::memcpy(bytes_.data() + offset, &number, sizeof number);
  }

  std::function<void()> afterRead;
  mutable std::size_t largest = 0;

 private:
  std::string bytes_;
};

constexpr std::size_t kHead = 16;  // in the header of a chunk
constexpr std::size_t kTail = 24;
constexpr std::size_t kRecordSize = 32;

TraceBuilder numbers(int count) {
  TraceBuilder builder;
  const std::uint32_t place = builder.place("work", "number %d", "d");
  for (int i = 0; i < count; ++i) {
    builder.record(place, 77, i, {i});
  }
  return builder;
}

std::vector<int> numbersOf(RingReader& reader, const TraceBytes& bytes,
                           std::vector<std::string>* skipped = nullptr) {
  std::vector<int> found;
  std::vector<std::string> notes;
  for (auto records = reader.next(bytes, notes); !records.empty(); records = reader.next(bytes, notes)) {
    for (const Record& record : records) {
      int number = 0;
      std::memcpy(&number, record.payload.data(), sizeof number);
      found.push_back(number);
    }
  }
  if (skipped != nullptr) {
    *skipped = notes;
  }
  return found;
}

RingReader readerOf(const TraceBytes& bytes) {
  const Trace trace = readOutline(bytes).trace;
  return RingReader(trace.rings.at(0), trace.timeOffset);
}

TEST(RingReader, TakesALongRingAPieceAtATime) {
  constexpr int kCount = 100000;
  const ChangingBytes bytes(numbers(kCount).bytes());
  RingReader reader = readerOf(bytes);

  const auto found = numbersOf(reader, bytes);

  ASSERT_THAT(found, SizeIs(kCount));
  for (int i = 0; i < kCount; ++i) {
    ASSERT_EQ(found[static_cast<std::size_t>(i)], i);
  }
  EXPECT_LT(bytes.largest, std::size_t{kCount} * kRecordSize / 50);
}

TEST(RingReader, TakesARecordThatIsLongerThanAPiece) {
  TraceBuilder builder;
  const std::uint32_t place = builder.place("work", "%s", "s");
  builder.record(place, 1, 1, {std::string(10, 'a')});
  builder.record(place, 1, 2, {std::string(200000, 'b')});
  builder.record(place, 1, 3, {std::string(10, 'c')});

  const Trace trace = readTrace(builder.bytes()).trace;

  ASSERT_THAT(trace.records, SizeIs(3));
  EXPECT_EQ(trace.records[1].payload.size(), 200003U);
  EXPECT_THAT(trace.skipped, IsEmpty());
}

TEST(RingReader, GoesOnWhereItWas) {
  const TraceBuilder builder = numbers(10);
  ChangingBytes bytes(builder.bytes());
  bytes.put(builder.ringOffset() + kHead, 4 * kRecordSize);
  RingReader reader = readerOf(bytes);
  EXPECT_THAT(numbersOf(reader, bytes), ElementsAre(0, 1, 2, 3));
  EXPECT_TRUE(reader.isAtEnd());

  reader.goOnTo(7 * kRecordSize);

  EXPECT_FALSE(reader.isAtEnd());
  EXPECT_THAT(numbersOf(reader, bytes), ElementsAre(4, 5, 6));
  reader.goOnTo(8 * kRecordSize + 1);
  EXPECT_THAT(numbersOf(reader, bytes), IsEmpty());
}

TEST(RingReader, LeavesOutWhatWasOverwrittenWhileItWasRead) {
  const TraceBuilder builder = numbers(10);
  ChangingBytes bytes(builder.bytes());
  RingReader reader = readerOf(bytes);
  bytes.afterRead = [&] { bytes.put(builder.ringOffset() + kTail, 6 * kRecordSize); };

  std::vector<std::string> skipped;

  EXPECT_THAT(numbersOf(reader, bytes, &skipped), ElementsAre(6, 7, 8, 9));
  EXPECT_THAT(skipped, IsEmpty());
}

TEST(RingReader, ComesToAnEndWhenTheFileBecomesShorter) {
  const TraceBuilder builder = numbers(10);
  RingReader reader = readerOf(BytesInMemory(builder.bytes()));
  const std::string shorter = builder.bytes().substr(0, builder.ringOffset() + 64 + 3 * kRecordSize);

  std::vector<std::string> skipped;

  EXPECT_THAT(numbersOf(reader, BytesInMemory(shorter), &skipped), ElementsAre(0, 1, 2));
  EXPECT_THAT(skipped, ElementsAre(HasSubstr("224 bytes of a thread's records")));
  EXPECT_THAT(numbersOf(reader, BytesInMemory(shorter), &skipped), IsEmpty());
  EXPECT_THAT(skipped, IsEmpty());  // it was said
}

TEST(TraceOutline, GoesOnWithPlacesAndRingsThatCame) {
  TraceBuilder before;
  before.place("work", "first", "");
  TraceBuilder after = before;
  const std::uint32_t second = after.place("work", "second", "");
  after.record(second, 1, 1, {});
  // The same file, with room for the place that comes.
  ChangingBytes bytes(after.bytes());
  const auto placesIn = [](const TraceBuilder& builder) {
    std::uint64_t head = 0;
    std::memcpy(&head, builder.bytes().data() + builder.placesOffset() + kHead, sizeof head);
    return head;
  };
  bytes.put(after.placesOffset() + kHead, placesIn(before));
  bytes.put(after.ringOffset() + kHead, 0);
  Trace trace = readOutline(bytes).trace;
  ASSERT_EQ(trace.locations.count(second), 0U);

  bytes.put(after.placesOffset() + kHead, placesIn(after));
  bytes.put(after.ringOffset() + kHead, 24);
  readOn(bytes, trace);

  EXPECT_EQ(trace.locations.at(second).format, "second");
  ASSERT_THAT(trace.rings, SizeIs(1));
  EXPECT_EQ(trace.rings[0].head, 24U);
  EXPECT_THAT(trace.skipped, IsEmpty());
}

// A process registers a place and writes its first record while the trace is read.
TEST(TraceOutline, KnowsThePlacesOfAllRecordsThatItFound) {
  TraceBuilder builder;
  builder.place("work", "first", "");
  const std::string before = builder.bytes();
  const std::uint32_t second = builder.place("work", "second", "");
  builder.record(second, 1, 1, {});
  ChangingBytes bytes(builder.bytes());
  const std::size_t head = builder.placesOffset() + kHead;
  std::uint64_t first = 0;
  std::memcpy(&first, before.data() + head, sizeof first);
  std::uint64_t both = 0;
  std::memcpy(&both, builder.bytes().data() + head, sizeof both);
  bytes.put(head, first);
  int reads = 0;
  bytes.afterRead = [&] {
    if (++reads == 2) {  // the header of the file and that of the places
      bytes.put(head, both);
    }
  };

  const Trace trace = readOutline(bytes).trace;

  ASSERT_EQ(trace.locations.count(second), 1U);
  EXPECT_EQ(trace.locations.at(second).format, "second");
  EXPECT_THAT(trace.skipped, IsEmpty());
}

}  // namespace
