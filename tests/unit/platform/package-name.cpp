// SPDX-License-Identifier: Apache-2.0
// Which names of packages become part of a path.
#include "package-name.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using fwplatform::isPackageName;

TEST(PackageName, IsOfLettersAndDigitsAlone) {
  EXPECT_TRUE(isPackageName("tunerempfw"));
  EXPECT_TRUE(isPackageName("AZaz09"));
  EXPECT_TRUE(isPackageName("x"));
  for (const char* const name :
       {"", ".", "..", "a.b", "a/b", "a b", "a-b", "a_b", "a\n", "@", "[", "`", "{", "/", ":", "\xC3\xA4"}) {
    EXPECT_FALSE(isPackageName(name)) << name;
  }
  EXPECT_FALSE(isPackageName(std::string("a\0b", 3)));
}

TEST(PackageName, HasAtMost127Characters) {
  EXPECT_TRUE(isPackageName(std::string(127, 'a')));
  EXPECT_FALSE(isPackageName(std::string(128, 'a')));
}

}  // namespace
