// SPDX-License-Identifier: Apache-2.0
#include "setting-lines.h"

#include <gmock/gmock.h>

namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;

TEST(SettingLines, AreNamesAndValuesWithTheirLines) {
  const auto lines = base::settingLines("# first\n\n a = b c \t\r\nd=e=f # why\ng =\n");

  ASSERT_THAT(lines, SizeIs(3));
  EXPECT_EQ(lines[0].number, 3);
  EXPECT_EQ(lines[0].name, "a");
  EXPECT_EQ(lines[0].value, "b c");
  EXPECT_EQ(lines[1].name, "d");
  EXPECT_EQ(lines[1].value, "e=f");
  EXPECT_EQ(lines[2].number, 5);
  EXPECT_EQ(lines[2].value, "");
  EXPECT_TRUE(lines[2].isSetting);
}

TEST(SettingLines, TellALineWithoutAnEqualsSign) {
  const auto lines = base::settingLines("on and on");

  ASSERT_THAT(lines, SizeIs(1));
  EXPECT_FALSE(lines[0].isSetting);
  EXPECT_EQ(lines[0].name, "on and on");
}

TEST(SettingLines, AreTakenOrToldWithWhatIsWrong) {
  std::string taken;
  const auto problems =
      base::takeSettings("a = 1\nnonsense\n= 2\na = 3\nb = 4\n", [&](const base::SettingLine& line) {
        taken += line.name + line.value;
        return line.name == "b" ? std::string("b is odd") : std::string();
      });

  EXPECT_EQ(taken, "a1b4");
  ASSERT_THAT(problems, SizeIs(4));
  EXPECT_EQ(base::textOf(problems[0], "file"), "file, line 2: it has no \"=\".");
  EXPECT_EQ(base::textOf(problems[1], "file"), "file, line 3: it has no name before its \"=\".");
  EXPECT_EQ(base::textOf(problems[2], "file"), "file, line 4: a stands in line 1 already.");
  EXPECT_EQ(base::textOf(problems[3], "file"), "file, line 5: b is odd.");
}

TEST(SettingLines, AreNoneInAnEmptyFile) {
  EXPECT_THAT(base::settingLines(""), IsEmpty());
  EXPECT_THAT(base::settingLines("\n \n#x"), IsEmpty());
}

}  // namespace
