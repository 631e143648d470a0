// SPDX-License-Identifier: Apache-2.0
// A ring in memory of the test's own, with nothing readable before and behind it.
#include "trace/trace-ring.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

namespace {

using fwplatform::trace::ChunkHeader;
using TraceStorage::Thread;

constexpr std::uint32_t kPayload = 40;
constexpr std::uint32_t kRecord = 64;  // with its header

class TraceRing : public ::testing::Test {
 protected:
  TraceRing() : page_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))) {
    guarded_ = mmap(nullptr, 3 * page_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    mprotect(bytes(), page_, PROT_READ | PROT_WRITE);
  }
  ~TraceRing() override { munmap(guarded_, 3 * page_); }

  unsigned char* bytes() const { return static_cast<unsigned char*>(guarded_) + page_; }
  std::uint32_t size() const { return static_cast<std::uint32_t>(page_); }
  std::uint32_t capacity() const { return size() - static_cast<std::uint32_t>(sizeof(ChunkHeader)); }
  ChunkHeader* chunk() const { return reinterpret_cast<ChunkHeader*>(bytes()); }

  // Somebody else writes this size wherever one may stand.
  void damage(std::uint32_t recordSize) const {
    for (std::uint32_t at = sizeof(ChunkHeader); at < size(); at += 8) {
      std::memcpy(bytes() + at, &recordSize, sizeof recordSize);
    }
  }

  std::uint32_t dropped_ = 0;

 private:
  const std::size_t page_;
  void* guarded_;
};

void write(Thread& ring) {
  unsigned char* const payload = ring.prepare(kPayload, 1, 1);
  ASSERT_NE(payload, nullptr);
  std::memset(payload, 1, kPayload);
  ring.commit();
}

// What else a record's size may claim to be, from each place that the oldest record can have.
TEST_F(TraceRing, StaysWithinItselfWhateverSizesOthersWriteIntoIt) {
  const auto fitting = static_cast<int>(capacity() / kRecord);
  for (int before = fitting; before < 2 * fitting; before += 3) {
    for (std::uint32_t recordSize = 0; recordSize <= 2 * capacity(); recordSize += 8) {
      std::memset(bytes(), 0, size());
      Thread ring(chunk(), size(), &dropped_);
      ring.setOwner(1);
      for (int i = 0; i < before; ++i) {
        write(ring);
      }
      damage(recordSize);
      for (int i = 0; i < 2 * fitting; ++i) {
        write(ring);
        ASSERT_LE(chunk()->tail, chunk()->head) << recordSize << " after " << before;
        ASSERT_LE(chunk()->head - chunk()->tail, capacity()) << recordSize << " after " << before;
      }
    }
  }
  EXPECT_EQ(dropped_, 0U);
}

}  // namespace
