// SPDX-License-Identifier: Apache-2.0
#include "directory-tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>

#include "device-environment.h"

namespace fs = std::filesystem;

namespace {

class DirectoryTree : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    fs::create_directories(root);
    writeFile("/tmp/outside/file", "x");
  }

  sandbox::DirectoryTree tree() const { return sandbox::DirectoryTree(root); }

  // What an attempt to get there is refused with; empty when it is not.
  std::string refusalOf(const std::string& path) const {
    try {
      tree().make(path);
    } catch (const std::system_error& refused) {
      return refused.what();
    }
    return "";
  }

  const std::string root = "/tmp/tree";
};

TEST_F(DirectoryTree, MakesADirectoryWithItsParents) {
  const mode_t previous = umask(077);
  const auto made = tree().make("/a/b/c", 01777);
  umask(previous);

  EXPECT_EQ(made.target(), root + "/a/b/c");
  EXPECT_EQ(static_cast<unsigned>(fs::status(root + "/a/b/c").permissions()), 01777U);
  EXPECT_EQ(static_cast<unsigned>(fs::status(root + "/a/b").permissions()), 0755U);
}

TEST_F(DirectoryTree, LeavesTheModeOfADirectoryThatIsThere) {
  fs::create_directory(root + "/a");
  fs::permissions(root + "/a", fs::perms(0700));

  tree().make("/a", 0755);

  EXPECT_EQ(static_cast<unsigned>(fs::status(root + "/a").permissions()), 0700U);
}

TEST_F(DirectoryTree, TellsWhatIsNotThereFromWhatIs) {
  writeFile(root + "/file", "x");

  EXPECT_TRUE(tree().open("/file", O_PATH));
  EXPECT_TRUE(tree().open("/", O_PATH));
  EXPECT_FALSE(tree().open("/missing", O_PATH));
  EXPECT_THROW(tree().open("/file/below", O_PATH), std::system_error);
}

TEST_F(DirectoryTree, RefusesALinkThatLeadsOut) {
  fs::create_directory_symlink("/tmp/outside", root + "/absolute");
  fs::create_directory_symlink("../outside", root + "/relative");
  fs::create_directory_symlink("/proc/self/root", root + "/magic");

  for (const std::string link : {"/absolute", "/relative", "/magic"}) {
    const auto sentence = "a link at " + root + link + " leads out of " + root + "; remove the link";
    EXPECT_EQ(refusalOf(link).find(sentence), 0U) << refusalOf(link);
    EXPECT_NE(refusalOf(link + "/deeper"), "") << link;
    EXPECT_THROW(tree().open(link + "/file", O_RDONLY), std::system_error) << link;
    EXPECT_THROW(tree().read(link + "/file"), std::system_error) << link;
    EXPECT_THROW(tree().write(link + "/file", "y"), std::system_error) << link;
  }
  EXPECT_EQ(readFile("/tmp/outside/file"), "x");
  EXPECT_EQ(std::distance(fs::directory_iterator("/tmp/outside"), fs::directory_iterator()), 1);
}

TEST_F(DirectoryTree, RefusesToGoUp) {
  EXPECT_THROW(tree().open("/../outside/file", O_RDONLY), std::system_error);
}

TEST_F(DirectoryTree, FollowsALinkThatStaysInside) {
  fs::create_directories(root + "/usr/lib");
  fs::create_directory_symlink("usr/lib", root + "/lib");

  EXPECT_EQ(tree().make("/lib/firmware").target(), root + "/usr/lib/firmware");
}

TEST_F(DirectoryTree, MakesNothingWhereALinkLeadsNowhere) {
  fs::create_directory_symlink("nowhere", root + "/link");

  EXPECT_NE(refusalOf("/link"), "");
  EXPECT_FALSE(exists(root + "/nowhere"));
}

TEST_F(DirectoryTree, FollowsAbsoluteLinksOfTheWholeSystem) {
  fs::create_directory_symlink("/tmp/outside", "/tmp/link");

  EXPECT_TRUE(sandbox::DirectoryTree("/").open("/tmp/link/file", O_RDONLY));
}

TEST_F(DirectoryTree, ReadsRegularFilesAlone) {
  writeFile(root + "/file", std::string(10000, 'x'));
  ASSERT_EQ(mkfifo((root + "/fifo").c_str(), 0600), 0);

  EXPECT_EQ(tree().read("/file"), std::string(10000, 'x'));
  EXPECT_EQ(tree().read("/missing"), "");
  EXPECT_EQ(tree().read("/fifo"), "");
  EXPECT_EQ(tree().read("/"), "");
}

TEST_F(DirectoryTree, WritesOverALinkAndNotWhereItLeads) {
  fs::create_directory(root + "/a");
  fs::create_symlink("/tmp/outside/file", root + "/a/file");
  fs::create_symlink("/tmp/outside/file", root + "/a/file.new");

  tree().write("/a/file", "new");

  EXPECT_EQ(readFile(root + "/a/file"), "new");
  EXPECT_FALSE(fs::is_symlink(root + "/a/file"));
  EXPECT_FALSE(exists(root + "/a/file.new"));
  EXPECT_EQ(readFile("/tmp/outside/file"), "x");
}

TEST_F(DirectoryTree, KnowsItsOwnerAndItself) {
  const auto opened = tree();
  fs::rename(root, "/tmp/moved");
  fs::create_directory(root);

  EXPECT_EQ(opened.owner(), geteuid());
  EXPECT_TRUE(opened.isSame(sandbox::DirectoryTree("/tmp/moved")));
  EXPECT_FALSE(opened.isSame(tree()));
}

TEST_F(DirectoryTree, NamesTheDirectoryThatIsNotThere) {
  try {
    sandbox::DirectoryTree("/tmp/missing");
    FAIL() << "opened what is not there";
  } catch (const std::system_error& refused) {
    EXPECT_EQ(std::string(refused.what()).find("cannot open the directory /tmp/missing"), 0U);
  }
}

TEST_F(DirectoryTree, NamesTheFileThatCannotBeWritten) {
  fs::create_directories(root + "/file/in-the-way");

  try {
    tree().write("/file", "x");
    FAIL() << "written over a directory";
  } catch (const std::system_error& refused) {
    EXPECT_EQ(std::string(refused.what()).find("cannot write " + root + "/file"), 0U) << refused.what();
  }
}

}  // namespace
