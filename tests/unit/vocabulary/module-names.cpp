// SPDX-License-Identifier: Apache-2.0
#include "module-names.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(ModuleNames, AreOfExtensionModulesWithExtAnywhereInAnyCase) {
  for (const char* const library : {"libEXT-door", "libext-door", "EXT-", "libdoor-Ext-x", "libnext-door"}) {
    EXPECT_TRUE(fwnames::isExtensionModule(library)) << library;
  }
  for (const char* const library : {"", "libdoor", "libEXT", "libE-XT-door", "libEXT_door"}) {
    EXPECT_FALSE(fwnames::isExtensionModule(library)) << library;
  }
}

TEST(FirmwareName, IsTheIdentifierWithoutItsFirstEmp) {
  EXPECT_EQ(fwnames::firmwareNameOf("doorempfw"), "doorfw");
  EXPECT_EQ(fwnames::firmwareNameOf("empempfw"), "empfw");
  EXPECT_EQ(fwnames::firmwareNameOf("doorfw"), "doorfw");
  EXPECT_EQ(fwnames::firmwareNameOf("emp"), "");
}

TEST(FirmwareName, IsNamedByEmpInLowerCaseAlone) {
  EXPECT_TRUE(fwnames::namesFirmware("doorempfw"));
  EXPECT_TRUE(fwnames::namesFirmware("emp"));
  EXPECT_FALSE(fwnames::namesFirmware("doorEMPfw"));
  EXPECT_FALSE(fwnames::namesFirmware("doorfw"));
  EXPECT_EQ(fwnames::firmwareNameOf("doorEMPfw"), "doorEMPfw");
}

TEST(PackageName, IsOfLettersAndDigitsAlone) {
  EXPECT_TRUE(fwnames::isPackageName("tunerempfw"));
  EXPECT_TRUE(fwnames::isPackageName("AZaz09"));
  EXPECT_TRUE(fwnames::isPackageName("x"));
  for (const char* const name :
       {"", ".", "..", "a.b", "a/b", "a b", "a-b", "a_b", "a\n", "@", "[", "`", "{", "/", ":", "\xC3\xA4"}) {
    EXPECT_FALSE(fwnames::isPackageName(name)) << name;
  }
  EXPECT_FALSE(fwnames::isPackageName(std::string("a\0b", 3)));
}

TEST(PackageName, HasAtMost127Characters) {
  EXPECT_TRUE(fwnames::isPackageName(std::string(127, 'a')));
  EXPECT_FALSE(fwnames::isPackageName(std::string(128, 'a')));
}

}  // namespace
