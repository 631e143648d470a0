// SPDX-License-Identifier: Apache-2.0
#include "list-seen.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

namespace {

using fleet::readSeen;
using fleet::SeenList;

SeenList seen() {
  return {7, 1'700'000'000, std::string(64, 'a'), true};
}

class ListSeen : public ::testing::Test {
 protected:
  ListSeen() {
    std::string name = ::testing::TempDir() + "list-seen-XXXXXX";
    directory_ = mkdtemp(name.data()) != nullptr ? name : "";
  }
  ~ListSeen() override { std::filesystem::remove_all(directory_); }

  std::string content() const {
    std::ifstream file(directory_ + "/list.seen");
    return {std::istreambuf_iterator<char>(file), {}};
  }
  void write(const std::string& content) const { std::ofstream(directory_ + "/list.seen") << content; }

  std::string directory_;
};

TEST_F(ListSeen, IsReadAsItWasWritten) {
  EXPECT_EQ(readSeen(directory_), std::nullopt);
  for (const bool isOffered : {true, false}) {
    SeenList list = seen();
    list.isOffered = isOffered;

    writeSeen(directory_, list);

    EXPECT_EQ(readSeen(directory_), list);
  }
}

TEST_F(ListSeen, IsAnotherWhenAnythingOfItIs) {
  SeenList others[] = {seen(), seen(), seen(), seen()};
  others[0].number = 8;
  others[1].issued += 1;
  others[2].sha256[63] = 'b';
  others[3].isOffered = false;

  EXPECT_TRUE(seen() == seen());
  for (const SeenList& other : others) {
    EXPECT_FALSE(seen() == other);
  }
}

TEST_F(ListSeen, IsUnusableWithAPartThatIsMissingOrWrong) {
  writeSeen(directory_, seen());
  const std::string whole = content();
  const std::vector<std::pair<std::string, std::string>> faults = {
      {"\"format\" : 1", "\"format\" : 2"},
      {"\"number\" : 7", "\"number\" : 7.5"},
      {"\"issued\" : ", "\"issued\" : 1e30, \"x\" : "},
      {"\"sha256\" : ", "\"sha256\" : 5, \"x\" : "},
      {"\"offered\" : true", "\"offered\" : 1"},
      {"{", "["},
  };
  for (const auto& [part, wrong] : faults) {
    std::string text = whole;
    const std::size_t at = text.find(part);
    ASSERT_NE(at, std::string::npos) << part;
    write(text.replace(at, part.size(), wrong));

    EXPECT_THROW(readSeen(directory_), fleet::SeenUnusable) << wrong;
  }
  write(whole + std::string(4097 - whole.size(), ' '));
  EXPECT_THROW(readSeen(directory_), fleet::SeenUnusable);
  write(whole + std::string(4096 - whole.size(), ' '));
  EXPECT_EQ(readSeen(directory_), seen());
}

TEST_F(ListSeen, IsUnusableWhereItCannotBeWrittenOrRead) {
  EXPECT_THROW(writeSeen(directory_ + "/missing", seen()), fleet::SeenUnusable);

  std::filesystem::create_directory(directory_ + "/list.seen");

  EXPECT_THROW(readSeen(directory_), fleet::SeenUnusable);
  EXPECT_THROW(writeSeen(directory_, seen()), fleet::SeenUnusable);
}

}  // namespace
