// SPDX-License-Identifier: Apache-2.0
#include "whole-file.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "child-process.h"
#include "file-calls.h"
#include "file-descriptor.h"
#include "limited-resource.h"
#include "refused-calls.h"

namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;

constexpr std::size_t kLimit = 8192;

class SmallFile : public ::testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/small-file-XXXXXX";
    place_ = mkdtemp(name);
    directory_.reset(open(place_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  }
  void TearDown() override { fs::remove_all(place_); }

  int read(std::string& content) const { return base::readFileAt(directory_.get(), "file", kLimit, content); }
  int replace(const std::string& content, bool sync = false) const {
    return base::replaceFileAt(directory_.get(), "file", content, sync);
  }
  std::string content() const {
    std::string content;
    EXPECT_EQ(read(content), 0);
    return content;
  }
  std::vector<std::string> names() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(place_)) {
      names.push_back(entry.path().filename());
    }
    return names;
  }

  std::string place_;
  base::FileDescriptor directory_;
};

TEST_F(SmallFile, HoldsWhatItWasReplacedWith) {
  for (const bool sync : {false, true}) {
    const std::string text(kLimit, sync ? 's' : 'n');

    EXPECT_EQ(replace(text, sync), 0);

    EXPECT_EQ(content(), text);
    EXPECT_THAT(names(), ElementsAre("file"));
  }
}

TEST_F(SmallFile, IsOnTheDiskBeforeItHasItsNameAndTheNameAfterwards) {
  const std::string place = fs::path(place_).filename();
  filecalls::reset();

  ASSERT_EQ(replace("new", true), 0);

  EXPECT_THAT(filecalls::made(),
              ElementsAre("unlink file.new", "sync file.new", "rename file.new file", "sync " + place));
}

TEST_F(SmallFile, WaitsForNoDiskUnlessItIsAskedTo) {
  filecalls::reset();

  ASSERT_EQ(replace("new", false), 0);

  EXPECT_THAT(filecalls::made(), ElementsAre("unlink file.new", "rename file.new file"));
}

TEST_F(SmallFile, SaysThatTheDiskFailed) {
  for (const char* call : {"sync file.new", "sync small-file-"}) {
    filecalls::reset();
    filecalls::fails = call;

    EXPECT_EQ(replace("new", true), EIO) << call;

    EXPECT_EQ(filecalls::fails, "") << call;
  }
  EXPECT_THAT(names(), ElementsAre("file"));
}

TEST_F(SmallFile, TakesThePlaceOfOneThatWasLeftUnfinished) {
  std::ofstream(place_ + "/file.new") << "of a process that was killed";

  EXPECT_EQ(replace("new"), 0);

  EXPECT_EQ(content(), "new");
  EXPECT_THAT(names(), ElementsAre("file"));
}

TEST_F(SmallFile, StaysAsItWasWhenThereIsNoRoomForTheNewOne) {
  ASSERT_EQ(replace("old"), 0);

  int error = 0;
  {
    const auto full = LimitedResource::fileSize(4096);
    error = replace(std::string(kLimit, 'n'));
  }

  EXPECT_EQ(error, EFBIG);
  EXPECT_EQ(content(), "old");
  EXPECT_THAT(names(), ElementsAre("file"));
}

TEST_F(SmallFile, StaysAsItWasWhenTheNewOneCannotBeForOthersToRead) {
  ASSERT_EQ(replace("before"), 0);

  EXPECT_EQ(runInChild([this] { return refuseCalls({SYS_fchmod}, EPERM) ? replace("after") : -1; }), EPERM);

  EXPECT_EQ(content(), "before");
}

TEST_F(SmallFile, ReplacesNoDirectory) {
  fs::create_directory(place_ + "/file");

  EXPECT_EQ(replace("new"), EISDIR);

  EXPECT_THAT(names(), ElementsAre("file"));
}

TEST_F(SmallFile, SaysWhyTheNewOneCannotBeMade) {
  ASSERT_EQ(replace("old"), 0);
  fs::create_directory(place_ + "/file.new");

  EXPECT_EQ(replace("new"), EEXIST);

  EXPECT_EQ(content(), "old");
}

TEST_F(SmallFile, IsReadUpToTheLimit) {
  ASSERT_EQ(replace(std::string(kLimit, 'x')), 0);
  std::string content = "old";

  EXPECT_EQ(read(content), 0);

  EXPECT_EQ(content, std::string(kLimit, 'x'));
}

TEST_F(SmallFile, IsNotReadWhenItIsLargerThanTheLimit) {
  ASSERT_EQ(replace(std::string(kLimit + 1, 'x')), 0);
  std::string content;

  EXPECT_EQ(read(content), EFBIG);
}

TEST_F(SmallFile, IsNotReadFromWhatIsNoFile) {
  std::string content;
  EXPECT_EQ(read(content), ENOENT);

  ASSERT_EQ(mkfifo((place_ + "/file").c_str(), 0600), 0);
  EXPECT_EQ(read(content), EINVAL);

  fs::remove(place_ + "/file");
  fs::create_symlink("elsewhere", place_ + "/file");
  EXPECT_EQ(read(content), ELOOP);
}

}  // namespace
