// SPDX-License-Identifier: Apache-2.0
#include "key-lists.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "temporary-place.h"

namespace {

using fwpackage::findInList;
using fwpackage::KeyId;
using fwpackage::Listed;

namespace fs = std::filesystem;

constexpr KeyId kKey = {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef};

class KeyList : public TemporaryPlace {
 protected:
  Listed find(const std::string& content) const {
    write("list", content);
    return findInList(path("list"), kKey);
  }
};

TEST_F(KeyList, HoldsTheKeysOfItsLines) {
  EXPECT_EQ(find("0123456789abcdef\n"), Listed::Yes);
  EXPECT_EQ(find("0123456789abcdef"), Listed::Yes);
  EXPECT_EQ(find("ffffffffffffffff\n0123456789abcdef\neeeeeeeeeeeeeeee\n"), Listed::Yes);
  EXPECT_EQ(find("0123456789abcdee\n1123456789abcdef\n"), Listed::No);
  EXPECT_EQ(find(""), Listed::No);
}

TEST_F(KeyList, MayHaveCommentsBlanksAndCapitals) {
  EXPECT_EQ(find("# a comment\n\n  0123456789ABCDEF\t# of 2024\r\n \t \n"), Listed::Yes);
  EXPECT_EQ(find("# 0123456789abcdef\n"), Listed::No);
}

TEST_F(KeyList, IsUnusableWhenALineIsWrong) {
  for (const char* wrong :
       {"0123456789abcde", "0123456789abcdef0", "0123456789abcdeg", "0123456789abcdef ffffffffffffffff",
        "01234567 89abcdef", "revoked", "0x23456789abcdef", "0123456789abcde/",
        "0123456789abcde:", "0123456789abcdeG", "0123456789abcde@", "0123456789abcde`"}) {
    EXPECT_EQ(find(std::string(wrong) + "\n"), Listed::Unusable) << wrong;
    EXPECT_EQ(find("0123456789abcdef\n" + std::string(wrong) + "\n"), Listed::Unusable) << wrong;
    EXPECT_EQ(find(std::string(wrong) + "\n0123456789abcdef\n"), Listed::Unusable) << wrong;
  }
  EXPECT_EQ(find(std::string("0123456789abcdef\n\0", 18)), Listed::Unusable);
}

TEST_F(KeyList, IsEmptyWhenItIsMissing) {
  EXPECT_EQ(findInList(path("absent"), kKey), Listed::No);
  EXPECT_EQ(findInList(path("no/directory"), kKey), Listed::No);
}

TEST_F(KeyList, IsUnusableWhenItCannotBeRead) {
  fs::create_directory(path("directory"));
  fs::create_symlink("/nowhere", path("link"));
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0644), 0);
  write("large", std::string(70000, '\n'));
  write("not-a-directory", "");

  for (const char* name : {"directory", "link", "fifo", "large", "not-a-directory/list"}) {
    EXPECT_EQ(findInList(path(name), kKey), Listed::Unusable) << name;
  }
}

TEST_F(KeyList, MayHaveThousandsOfKeys) {
  std::string list;
  for (int i = 0; i < 3000; ++i) {
    list += "ffffffffffffffff\n";
  }

  EXPECT_EQ(find(list), Listed::No);
  EXPECT_EQ(find(list + "0123456789abcdef\n"), Listed::Yes);
}

}  // namespace
