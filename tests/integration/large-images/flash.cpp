// SPDX-License-Identifier: Apache-2.0
// The modules' way from a large image into a component's flash.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <vector>

#include "component.h"
#include "device-environment.h"
#include "flash-file.h"
#include "sparse-image.h"

namespace fs = std::filesystem;

namespace {

constexpr char kNewFlash[] = "/var/lib/fw-components/tunerfw.flash.new";
constexpr std::size_t kBlock = std::size_t{64} << 20U;

class LargeFlash : public DeviceTest {};

// Zeros take no room when there is a hole instead. Whoever reads sees no difference.
void makeHole(std::uint64_t size) {
  const int file = open(kNewFlash, O_WRONLY | O_CLOEXEC);
  ASSERT_GE(file, 0);
  EXPECT_EQ(fallocate(file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, fwcomponent::kFlashHeaderSize,
                      static_cast<off_t>(size)),
            0);
  close(file);
}

std::uint64_t readToItsEnd(fwcomponent::NewFlash& flash, std::vector<unsigned char>& block) {
  std::uint64_t size = 0;
  while (const std::size_t length = flash.readBack(block.data(), block.size())) {
    size += length;
  }
  return size;
}

TEST_F(LargeFlash, HoldsMoreThanFourGibibytes) {
  constexpr std::uint64_t kZeros = 4 * kGibibyte;
  const std::vector<unsigned char> end(1000, 'x');
  std::vector<unsigned char> block(kBlock);
  fwcomponent::NewFlash flash("tunerfw");

  for (std::uint64_t size = kBlock; size <= kZeros; size += kBlock) {
    flash.append(block.data(), block.size());
    makeHole(size);
  }
  flash.append(end.data(), end.size());
  flash.finishWriting({"5.0.0", kZeros + end.size(), 7});
  const std::uint64_t size = readToItsEnd(flash, block);
  flash.activate();

  EXPECT_EQ(size, kZeros + end.size());
  EXPECT_TRUE(std::equal(end.begin(), end.end(), block.begin()));
  const auto active = fwcomponent::readActiveFlash("tunerfw");
  ASSERT_TRUE(active);
  EXPECT_EQ(active->version, "5.0.0");
  EXPECT_EQ(active->size, kZeros + end.size());
}

// The hardware breaks at the first percent, long before the flash takes real room.
TEST_F(LargeFlash, CountsThePercentOfMoreThanFourGibibytes) {
  constexpr std::uint64_t kSize = 4 * kGibibyte + 1000;
  writeFile("/var/lib/fw-components/tunerfw.component", "fail_at_percent = 1\n");
  const SparseImage image = markedImage(kSize);
  image.write("/tmp/image");
  writeFile("/tmp/info.json", "{\"version\": \"2.0.0\"}\n");
  fwcomponent::Component component({"tunerempfw", "tunerfw", 10, 4096});
  component.setContext("libtuner", 4, "");
  ASSERT_TRUE(component.isNewer("2.0.0"));

  try {
    component.updateFromFile("/tmp/image", image.crc());
    ADD_FAILURE() << "the hardware did not break";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code().value(), EIO);
    EXPECT_NE(std::string(error.what()).find("failed at 1 percent"), std::string::npos) << error.what();
  }

  EXPECT_EQ(component.expectedSeconds(), static_cast<int>(kSize / 1024 / 4096 + 1));
  EXPECT_EQ(component.activeVersion(), "0.0.0");
}

}  // namespace
