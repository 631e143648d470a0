// SPDX-License-Identifier: Apache-2.0
#include "tree-digest.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace powercut {
namespace {
namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class TreeDigest : public ::testing::Test {
 protected:
  TreeDigest() {
    std::string name = ::testing::TempDir() + "tree-digest-XXXXXX";
    root_ = mkdtemp(name.data()) != nullptr ? name : "";
  }
  ~TreeDigest() override { fs::remove_all(root_); }

  void write(const std::string& name, const std::string& content) const {
    fs::create_directories(fs::path(root_ + name).parent_path());
    std::ofstream(root_ + name) << content;
  }
  std::string digest() const { return lookAtTree(root_).digest; }

  std::string root_;
};

TEST_F(TreeDigest, IsTheSameForTheSameTree) {
  write("/directory/file", "content");
  const std::string before = digest();

  fs::remove_all(root_ + "/directory");
  write("/directory/file", "content");

  EXPECT_EQ(before.size(), 64U);
  EXPECT_EQ(digest(), before);
  EXPECT_THAT(lookAtTree(root_).unreadable, IsEmpty());
}

TEST_F(TreeDigest, ChangesWithEachByteOfALongFile) {
  std::string content(std::size_t{1} << 19U, 'x');
  write("/file", content);
  const std::string before = digest();

  content.back() = 'y';
  write("/file", content);

  EXPECT_NE(digest(), before);
}

TEST_F(TreeDigest, ChangesWithNameModeAndKind) {
  write("/file", "");
  const std::string before = digest();

  chmod((root_ + "/file").c_str(), 0600);
  const std::string ofAnotherMode = digest();
  chmod((root_ + "/file").c_str(), 0644);
  fs::rename(root_ + "/file", root_ + "/other");
  const std::string ofAnotherName = digest();
  fs::remove(root_ + "/other");
  fs::create_directory(root_ + "/file");

  EXPECT_NE(ofAnotherMode, before);
  EXPECT_NE(ofAnotherName, before);
  EXPECT_NE(digest(), before);
}

TEST_F(TreeDigest, DoesNotFollowLinks) {
  write("/file", "content");
  fs::create_symlink("file", root_ + "/link");
  fs::create_symlink("nothing", root_ + "/dangling");

  EXPECT_THAT(lookAtTree(root_).unreadable, IsEmpty());
}

TEST_F(TreeDigest, LeavesOutLostAndFoundAtTheTopAlone) {
  const std::string empty = digest();
  write("/lost+found/file", "content");
  const std::string withItAtTheTop = digest();
  fs::remove_all(root_ + "/lost+found");
  write("/directory/other", "content");
  const std::string before = digest();

  write("/directory/lost+found", "content");

  EXPECT_EQ(withItAtTheTop, empty);
  EXPECT_NE(digest(), before);
}

TEST_F(TreeDigest, SaysWhatCannotBeRead) {
  const std::string empty = digest();

  fs::remove(root_);
  const Tree tree = lookAtTree(root_);

  EXPECT_THAT(tree.unreadable, ElementsAre(": No such file or directory"));
  EXPECT_NE(tree.digest, empty);
}

}  // namespace
}  // namespace powercut
