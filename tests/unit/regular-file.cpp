// SPDX-License-Identifier: Apache-2.0
#include "regular-file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <utility>

namespace {

// Runs right before the next file is opened: after it was looked at.
std::function<void()> beforeOpening;

}  // namespace

// In place of the C library's.
extern "C" int open(const char* path, int flags, ...) {
  std::va_list arguments;
  va_start(arguments, flags);
  const auto mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  if (const auto act = std::exchange(beforeOpening, nullptr)) {
    act();
  }
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags | O_LARGEFILE, mode));
}

namespace {

namespace fs = std::filesystem;

class OpenedRegularFile : public ::testing::Test {
 protected:
  OpenedRegularFile() {
    std::string name = ::testing::TempDir() + "regular-file-XXXXXX";
    directory_ = mkdtemp(name.data()) != nullptr ? name : "";
    path_ = directory_ + "/file";
    std::ofstream(path_) << "text";
  }
  ~OpenedRegularFile() override {
    beforeOpening = nullptr;
    fs::remove_all(directory_);
  }

  std::string directory_;
  std::string path_;
};

TEST_F(OpenedRegularFile, HasItsSize) {
  bool looked = false;
  beforeOpening = [&] { looked = true; };

  const RegularFile file = openRegularFile(path_);

  EXPECT_TRUE(looked);
  EXPECT_TRUE(file.descriptor.isOpen());
  EXPECT_EQ(file.size, 4);
}

TEST_F(OpenedRegularFile, IsNothingThatTookItsPlaceMeanwhile) {
  const std::function<void()> intruders[] = {
      [this] { ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0); },
      [this] { fs::create_directory(path_); },
      [this] { fs::create_symlink("/dev/zero", path_); },
      [] {},
  };
  for (const auto& intrude : intruders) {
    fs::remove(path_);
    std::ofstream(path_) << "text";
    beforeOpening = [&] {
      fs::remove(path_);
      intrude();
    };

    EXPECT_FALSE(openRegularFile(path_).descriptor.isOpen());
    EXPECT_EQ(beforeOpening, nullptr);
  }
}

}  // namespace
