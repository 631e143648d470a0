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

TEST(SettingLines, AreNoneInAnEmptyFile) {
  EXPECT_THAT(base::settingLines(""), IsEmpty());
  EXPECT_THAT(base::settingLines("\n \n#x"), IsEmpty());
}

}  // namespace
