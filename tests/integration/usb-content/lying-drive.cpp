// SPDX-License-Identifier: Apache-2.0
// A drive that gives other bytes, or none, when it is read a second time.
#include <fcntl.h>
#include <unistd.h>

#include "content-test.h"
#include "lying-file-system.h"
#include "thoroughness.h"

using ::testing::Contains;
using ::testing::IsEmpty;

namespace {

constexpr std::int64_t kTrailerSize = 534;

class LyingDrive : public ContentTest {
 protected:
  void SetUp() override {
    if (const std::string reason = LyingFileSystem::whyNot(); !reason.empty()) {
      GTEST_SKIP() << reason;
    }
    ContentTest::SetUp();
    drive = std::make_unique<LyingFileSystem>(kDrive, package);
    installVerifier(VERIFIER_LIBRARY);
  }
  void TearDown() override { drive.reset(); }

  std::vector<std::int64_t> offsets() const {
    const auto size = static_cast<std::int64_t>(package.size());
    std::vector<std::int64_t> all = {0,       15, 16, 79, 80, size - kTrailerSize - 1, size - kTrailerSize,
                                     size - 1};
    for (std::int64_t at = 100; at < size; at += 997 * thoroughness::kEveryNth) {
      all.push_back(at);
    }
    return all;
  }
  bool isTrailer(std::int64_t offset) const {
    return offset >= static_cast<std::int64_t>(package.size()) - kTrailerSize;
  }

  std::unique_ptr<LyingFileSystem> drive;
};

}  // namespace

TEST_F(LyingDrive, IsTakenAsLongAsItTellsTheTruth) {
  EXPECT_EQ(list(), 1);
  EXPECT_EQ(update(), 0);

  EXPECT_THAT(images, ::testing::ElementsAre(image));
}

TEST_F(LyingDrive, IsRefusedInBothStepsWhenTheSecondReadingDiffers) {
  for (const std::int64_t offset : offsets()) {
    drive->lieAbout(offset, 2);
    EXPECT_EQ(list(), -1) << offset;
    EXPECT_GE(drive->readings(), 2) << "it did lie";
    EXPECT_THAT(recording::texts(), Contains("Error: " + std::string(kPackage) + " is NOT signed"));

    drive->lieAbout(offset, 2);
    EXPECT_EQ(update(), -1) << offset;
    EXPECT_GE(drive->readings(), 2) << "it did lie";
    EXPECT_THAT(recording::texts(), Contains("Error: " + std::string(kPackage) + " file is NOT signed"));

    EXPECT_THAT(versions, IsEmpty()) << offset;
    EXPECT_THAT(images, IsEmpty()) << offset;
    forget();
  }
}

// The check reads the trailer once for itself, before the library does.
TEST_F(LyingDrive, IsRefusedWhenTheTrailersThirdReadingDiffers) {
  for (const std::int64_t offset : offsets()) {
    if (isTrailer(offset)) {
      drive->lieAbout(offset, 3);
      EXPECT_EQ(list(), -1) << offset;
      EXPECT_EQ(drive->readings(), 3) << "it did lie";
      drive->lieAbout(offset, 3);
      EXPECT_EQ(update(), -1) << offset;

      EXPECT_THAT(versions, IsEmpty()) << offset;
    }
  }
}

TEST_F(LyingDrive, IsRefusedWhenTheSecondReadingFails) {
  for (const std::int64_t offset : offsets()) {
    drive->failAt(offset, isTrailer(offset) ? 3 : 2);
    EXPECT_EQ(list(), -1) << offset;
    EXPECT_GE(drive->readings(), 2) << "it did fail";
    drive->failAt(offset, isTrailer(offset) ? 3 : 2);
    EXPECT_EQ(update(), -1) << offset;

    EXPECT_THAT(versions, IsEmpty()) << offset;
    EXPECT_THAT(images, IsEmpty()) << offset;
  }
}
