// SPDX-License-Identifier: Apache-2.0
#include "disk-log.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace powercut {
namespace {

class DiskLog : public ::testing::Test {
 protected:
  DiskLog() : path_(::testing::TempDir() + "disk-log-" + std::to_string(getpid())) {}
  ~DiskLog() override { std::remove(path_.c_str()); }

  std::string bytes() const {
    std::ifstream file(path_, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  void write(const std::string& content) const { std::ofstream(path_, std::ios::binary) << content; }

  const std::string path_;
};

std::string number(std::uint64_t value, std::size_t size = 8) {
  std::string text;
  for (std::size_t index = 0; index < size; ++index) {
    text += static_cast<char>(value >> (8 * index));
  }
  return text;
}

std::string sector(const std::string& content) {
  return content + std::string(512 - content.size(), '\0');
}

// As the kernel's dm-log-writes has it.
std::string kernelLog() {
  return sector(number(0x6A736677736872) + number(1) + number(4) + number(512, 4)) +
         sector(number(8) + number(2) + number(0) + number(0)) + std::string(1024, 'a') +
         sector(number(0) + number(0) + number(1) + number(0)) +
         sector(number(16) + number(8) + number(4) + number(0)) +
         sector(number(0) + number(0) + number(8) + number(7)) + sector("success");
}

TEST_F(DiskLog, IsReadAsTheKernelWritesIt) {
  write(kernelLog());

  const auto entries = readDiskLog(path_);

  ASSERT_EQ(entries.size(), 4U);
  EXPECT_EQ(entries[0].offset, 4096U);
  EXPECT_EQ(entries[0].data, std::string(1024, 'a'));
  EXPECT_TRUE(entries[1].has(DiskLogEntry::Flush));
  EXPECT_TRUE(entries[2].has(DiskLogEntry::Discard));
  EXPECT_EQ(entries[2].offset, 8192U);
  EXPECT_EQ(entries[2].length, 4096U);
  EXPECT_TRUE(entries[3].has(DiskLogEntry::Mark));
  EXPECT_EQ(entries[3].data, "success");
}

TEST_F(DiskLog, IsWrittenAsTheKernelWritesIt) {
  DiskLogWriter writer(path_);
  writer.write(4096, std::string(1024, 'a').c_str(), 1024);
  writer.flush();

  const std::string expected = kernelLog();
  const std::string found = bytes();

  ASSERT_EQ(found.size(), 512U * 5);
  EXPECT_EQ(found.substr(16, 8), number(2));
  EXPECT_EQ(found.substr(512), expected.substr(512, 512 * 4));
}

TEST_F(DiskLog, TakesMarksOfAnyLength) {
  DiskLogWriter writer(path_);
  writer.mark(std::string(600, 'm'));
  writer.mark("");
  writer.flush();

  const auto entries = readDiskLog(path_);

  ASSERT_EQ(entries.size(), 3U);
  EXPECT_EQ(entries[0].data, std::string(600, 'm'));
  EXPECT_TRUE(entries[1].has(DiskLogEntry::Mark));
  EXPECT_EQ(entries[1].data, "");
  EXPECT_TRUE(entries[2].has(DiskLogEntry::Flush));
}

TEST_F(DiskLog, OfAnotherKindOrCutOffIsRefused) {
  write(std::string(4096, 'x'));
  EXPECT_THROW(readDiskLog(path_), std::runtime_error);

  write(kernelLog().substr(0, 512 + 512 + 600));
  EXPECT_THROW(readDiskLog(path_), std::runtime_error);

  write("");
  EXPECT_THROW(readDiskLog(path_), std::runtime_error);
}

}  // namespace
}  // namespace powercut
