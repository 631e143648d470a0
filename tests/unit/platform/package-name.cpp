// Which names of packages become part of a path.
#include "privileged/package-name.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using fwplatform::IsPackageName;

TEST(PackageName, IsOfLettersAndDigitsAlone) {
  EXPECT_TRUE(IsPackageName("tunerempfw"));
  EXPECT_TRUE(IsPackageName("AZaz09"));
  EXPECT_TRUE(IsPackageName("x"));
  for (const char* const name :
       {"", ".", "..", "a.b", "a/b", "a b", "a-b", "a_b", "a\n", "@", "[", "`", "{", "/", ":", "\xC3\xA4"}) {
    EXPECT_FALSE(IsPackageName(name)) << name;
  }
  EXPECT_FALSE(IsPackageName(std::string("a\0b", 3)));
}

TEST(PackageName, HasAtMost127Characters) {
  EXPECT_TRUE(IsPackageName(std::string(127, 'a')));
  EXPECT_FALSE(IsPackageName(std::string(128, 'a')));
}

}  // namespace
