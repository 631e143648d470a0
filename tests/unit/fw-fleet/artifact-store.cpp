// SPDX-License-Identifier: Apache-2.0
#include "artifact-store.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

namespace {

using fleet::ArtifactStore;
using fleet::PartialArtifact;
using fleet::StoreFailure;
using fleet::StoreTrouble;

// printf firmware | sha256sum
constexpr char kFirmware[] = "firmware";
constexpr char kFirmwareHash[] = "c3bf47ea1f4a4a605470313cacb3a44f4a461f68c6faeab07e737610cb5ac835";
constexpr std::int64_t kFirmwareSize = 8;

class FleetStore : public ::testing::Test {
 protected:
  FleetStore() {
    char name[] = "/tmp/fleet-store-XXXXXX";
    directory_ = mkdtemp(name);
    store_.emplace(directory_ + "/store");
  }
  ~FleetStore() override { std::filesystem::remove_all(directory_); }

  std::string path(const std::string& name = kFirmwareHash) const { return directory_ + "/store/" + name; }
  std::string part() const { return path(std::string(kFirmwareHash) + ".part"); }
  static void write(const std::string& path, const std::string& text) { std::ofstream(path) << text; }
  static std::string read(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
  }

  PartialArtifact partial() const { return PartialArtifact(*store_, kFirmwareHash, kFirmwareSize); }

  template <typename Function>
  static std::string sentenceOf(StoreTrouble trouble, Function function) {
    try {
      function();
    } catch (const StoreFailure& failure) {
      EXPECT_EQ(failure.trouble(), trouble) << failure.what();
      return failure.what();
    }
    return "nothing was thrown";
  }

  std::string directory_;
  std::optional<ArtifactStore> store_;
};

TEST_F(FleetStore, KeepsWhatCameUnderItsHash) {
  PartialArtifact artifact = partial();
  artifact.append("firm", 4);
  EXPECT_FALSE(store_->has(kFirmwareHash, kFirmwareSize));
  artifact.append("ware", 4);

  artifact.finish();

  EXPECT_EQ(read(path()), kFirmware);
  EXPECT_FALSE(std::filesystem::exists(part()));
  EXPECT_TRUE(store_->has(kFirmwareHash, kFirmwareSize));
  EXPECT_FALSE(store_->has(kFirmwareHash, kFirmwareSize + 1));
}

TEST_F(FleetStore, IsForThisUserAlone) {
  partial().append("firm", 4);
  struct stat status = {};

  ASSERT_EQ(stat(path("").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0700U);
  ASSERT_EQ(stat(part().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07077U, 0U);
}

TEST_F(FleetStore, GoesOnWhereItStopped) {
  partial().append("firm", 4);

  PartialArtifact again = partial();

  EXPECT_EQ(again.received(), 4);
  EXPECT_EQ(again.missing(), 4);
  again.append("ware", 4);
  again.finish();
  EXPECT_TRUE(store_->has(kFirmwareHash, kFirmwareSize));
}

TEST_F(FleetStore, ChecksWhatItTookUpAsAWhole) {
  write(part(), "farm");
  PartialArtifact artifact = partial();
  artifact.append("ware", 4);

  const std::string sentence = sentenceOf(StoreTrouble::Wrong, [&] { artifact.finish(); });

  EXPECT_THAT(sentence, ::testing::HasSubstr("and not with " + std::string(kFirmwareHash).substr(0, 12)));
  EXPECT_FALSE(std::filesystem::exists(part()) || std::filesystem::exists(path()));
}

TEST_F(FleetStore, BeginsAgainWhenTheServerDoes) {
  write(part(), "farm");
  PartialArtifact artifact = partial();

  artifact.restart();

  EXPECT_EQ(artifact.received(), 0);
  artifact.append(kFirmware, 8);
  artifact.finish();
  EXPECT_EQ(read(path()), kFirmware);
}

TEST_F(FleetStore, BeginsAgainWhenMoreLiesThereThanIsWanted) {
  write(part(), "firmwares");

  EXPECT_EQ(partial().received(), 0);
  EXPECT_EQ(std::filesystem::file_size(part()), 0U);
}

TEST_F(FleetStore, RefusesWhatIsTooLong) {
  PartialArtifact artifact = partial();
  artifact.append(kFirmware, 8);

  EXPECT_EQ(sentenceOf(StoreTrouble::Wrong, [&] { artifact.append("s", 1); }),
            "The server sent more than the 8 bytes that it had announced.");
  EXPECT_FALSE(std::filesystem::exists(part()));
}

TEST_F(FleetStore, KeepsWhatIsTooShortToGoOnWithIt) {
  PartialArtifact artifact = partial();
  artifact.append("firm", 4);

  EXPECT_EQ(sentenceOf(StoreTrouble::Incomplete, [&] { artifact.finish(); }), "Only 4 of 8 bytes have come.");
  EXPECT_EQ(read(part()), "firm");
  EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(FleetStore, FollowsNoLink) {
  write(directory_ + "/victim", "important");
  ASSERT_EQ(symlink((directory_ + "/victim").c_str(), part().c_str()), 0);
  PartialArtifact artifact = partial();
  artifact.append(kFirmware, 8);
  artifact.finish();
  EXPECT_EQ(read(directory_ + "/victim"), "important");

  std::filesystem::rename(path(), directory_ + "/moved");
  ASSERT_EQ(symlink((directory_ + "/moved").c_str(), path().c_str()), 0);
  EXPECT_FALSE(store_->has(kFirmwareHash, kFirmwareSize));
}

TEST_F(FleetStore, TakesUpNoFileThatHasASecondName) {
  write(directory_ + "/victim", "important");
  ASSERT_EQ(link((directory_ + "/victim").c_str(), part().c_str()), 0);

  EXPECT_EQ(partial().received(), 0);
  EXPECT_EQ(read(directory_ + "/victim"), "important");
}

TEST_F(FleetStore, HasNothingThatWasChangedWhereItLies) {
  write(path(), "firmwore");

  EXPECT_FALSE(store_->has(kFirmwareHash, kFirmwareSize));
}

TEST_F(FleetStore, SaysHowMuchRoomThereIs) {
  EXPECT_NO_THROW(store_->requireSpace(0));
  EXPECT_THAT(
      sentenceOf(StoreTrouble::NoSpace, [&] { store_->requireSpace(std::int64_t{1} << 60); }),
      ::testing::HasSubstr("There is no room for the update: it needs 1152921504606846976 bytes, and "));
}

TEST(FleetStoreReserve, IsATwentiethOfTheDiskWithinBounds) {
  constexpr std::int64_t kMiB = std::int64_t{1} << 20;

  EXPECT_EQ(fleet::reserveOf(0), kMiB);
  EXPECT_EQ(fleet::reserveOf(20 * kMiB), kMiB);
  EXPECT_EQ(fleet::reserveOf(200 * kMiB), 10 * kMiB);
  EXPECT_EQ(fleet::reserveOf(20 * 256 * kMiB), 256 * kMiB);
  EXPECT_EQ(fleet::reserveOf(std::int64_t{1} << 62), 256 * kMiB);
}

TEST_F(FleetStore, RemovesBothNames) {
  write(path(), "x");
  write(part(), "y");

  store_->remove(kFirmwareHash);

  EXPECT_FALSE(std::filesystem::exists(part()) || std::filesystem::exists(path()));
  EXPECT_NO_THROW(store_->remove(kFirmwareHash));
}

TEST_F(FleetStore, SaysWhyItCannotBeUsed) {
  EXPECT_THAT(sentenceOf(StoreTrouble::Disk, [&] { ArtifactStore(directory_ + "/none/store"); }),
              ::testing::HasSubstr("/none/store cannot be made: "));
}

}  // namespace
