// SPDX-License-Identifier: Apache-2.0
// Traces that change while they are read.
#include "trace-store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "message.h"
#include "read-calls.h"
#include "trace-builder.h"

namespace {

using fwplatform::trace::ChunkHeader;
using fwplatform::trace::FileHeader;
using fwplatform::trace::kFileHeaderSize;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::size_t kSizeOfRecord = 32;
constexpr std::size_t kHead = offsetof(ChunkHeader, head);
constexpr std::size_t kTail = offsetof(ChunkHeader, tail);

// A trace of four records that carry their number, in a file.
class CopiedTrace : public ::testing::Test {
 protected:
  CopiedTrace() {
    TraceBuilder trace;
    const auto place = trace.place("work", "number %d", "d");
    for (int number = 0; number < 4; ++number) {
      trace.record(place, 77, number, {number});
    }
    trace.header.headerSize = kFileHeaderSize;
    const std::string bytes = trace.bytes();
    bytes_ = bytes.substr(0, sizeof(FileHeader));
    bytes_.resize(kFileHeaderSize);
    bytes_ += bytes.substr(sizeof(FileHeader));
    ring_ = trace.ringOffset() - sizeof(FileHeader) + kFileHeaderSize;
    write(bytes_);
  }
  ~CopiedTrace() override {
    readcalls::reset();
    std::filesystem::remove(path_);
  }

  void write(const std::string& bytes) const { std::ofstream(path_, std::ios::binary) << bytes; }

  void change(std::size_t offset, const std::string& bytes) const {
    std::fstream file(path_, std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(static_cast<std::streamoff>(offset))
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }

  void changeNumber(std::size_t offset, std::uint64_t number) const {
    change(offset, std::string(reinterpret_cast<const char*>(&number), sizeof number));
  }

  // As a thread that finds no room: the oldest records are given up, then overwritten.
  void overwrite(std::size_t records) const {
    changeNumber(ring_ + kTail, records * kSizeOfRecord);
    change(ring_ + sizeof(ChunkHeader), std::string(records * kSizeOfRecord, 'x'));
    changeNumber(ring_ + kHead, (4 + records) * kSizeOfRecord);
  }

  // Acts once, when something at this place was read for the n-th time.
  static void onRead(std::size_t offset, int nth, const std::function<void()>& act) {
    readcalls::after = [=, seen = 0](std::size_t at) mutable {
      if (at == offset && ++seen == nth) {
        act();
      }
    };
  }

  static std::vector<std::string> textsOf(tracetool::TraceFile file) {
    std::vector<std::string> texts;
    for (const auto& message : tracetool::messagesOf(file.trace)) {
      texts.push_back(message.text);
    }
    return texts;
  }

  const std::string path_ = ::testing::TempDir() + "copied-" + std::to_string(getpid()) + ".fwtrace";
  std::string bytes_;
  std::size_t ring_ = 0;
};

TEST_F(CopiedTrace, IsWholeInPiecesOfAnySize) {
  for (const std::size_t size : {1U, 7U, 63U, 64U, 65U, 4096U}) {
    readcalls::largest = size;

    const auto file = tracetool::loadTrace(path_);

    EXPECT_THAT(textsOf(file), ElementsAre("number 0", "number 1", "number 2", "number 3")) << size;
    EXPECT_THAT(file.trace.skipped, IsEmpty()) << size;
  }
}

TEST_F(CopiedTrace, HasWhatWasNotOverwrittenMeanwhile) {
  readcalls::largest = sizeof(ChunkHeader);
  onRead(ring_, 1, [this] { overwrite(2); });  // the header is read, the records are not

  const auto file = tracetool::loadTrace(path_);

  EXPECT_THAT(textsOf(file), ElementsAre("number 2", "number 3"));
  EXPECT_THAT(file.trace.skipped, IsEmpty());
}

TEST_F(CopiedTrace, HasNothingOfARingThatWasOverwrittenAsAWhole) {
  readcalls::largest = sizeof(ChunkHeader);
  onRead(ring_, 1, [this] {
    overwrite(4);
    changeNumber(ring_ + kTail, 7 * kSizeOfRecord);
  });

  const auto file = tracetool::loadTrace(path_);

  EXPECT_THAT(textsOf(file), IsEmpty());
  EXPECT_THAT(file.trace.skipped, IsEmpty());
}

TEST_F(CopiedTrace, HasWhatWasCopiedBeforeTheFileWasCutOff) {
  onRead(ring_, 2, [this] { std::filesystem::resize_file(path_, ring_); });

  EXPECT_THAT(textsOf(tracetool::loadTrace(path_)), SizeIs(4));
}

TEST_F(CopiedTrace, TakesNoMoreThanTheFileHadAtFirst) {
  write(bytes_.substr(0, ring_ + 8));
  onRead(0, 1, [this] { write(bytes_); });

  const auto file = tracetool::loadTrace(path_);

  EXPECT_EQ(file.bytes, ring_ + 8);
  EXPECT_THAT(textsOf(file), IsEmpty());
}

}  // namespace
