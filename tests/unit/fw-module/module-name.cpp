// SPDX-License-Identifier: Apache-2.0
#include "module-name.h"

#include <gmock/gmock.h>

#include "module-names.h"

namespace {

using fwmodule::BadName;
using fwmodule::ModuleName;
using fwmodule::parseModuleName;
using ::testing::HasSubstr;

std::string refusal(const std::string& name) {
  try {
    parseModuleName(name);
    return "";
  } catch (const BadName& bad) {
    return bad.what();
  }
}

// Removing the first "emp" of the identifier has to give the firmware's name.
TEST(ModuleName, GivesIdentifierAndFirmwareThatBelongTogether) {
  const struct {
    const char* library;
    bool extension;
    const char* identifier;
    const char* firmware;
  } names[] = {
      {"libdoor", false, "doorempfw", "doorfw"},
      {"door", false, "doorempfw", "doorfw"},
      {"libdoor-2_b", false, "door2bempfw", "door2bfw"},
      {"libtemperature", false, "emptemperaturefw", "temperaturefw"},
      {"libEXT-door", true, "doorempfw", "doorfw"},
      {"EXT-door", true, "doorempfw", "doorfw"},
  };
  for (const auto& one : names) {
    const ModuleName name = parseModuleName(one.library);

    EXPECT_EQ(name.extension, one.extension) << one.library;
    EXPECT_EQ(name.identifier, one.identifier) << one.library;
    EXPECT_EQ(name.firmware, one.firmware) << one.library;
    EXPECT_EQ(fwnames::firmwareNameOf(name.identifier), one.firmware) << one.library;
  }
}

TEST(ModuleName, RefusesWhatNoModuleCanBeCalled) {
  EXPECT_THAT(refusal("libdoor.so"), HasSubstr("leave out \".so\": libdoor"));
  EXPECT_THAT(refusal(""), HasSubstr("begins with a letter"));
  EXPECT_THAT(refusal("9lives"), HasSubstr("begins with a letter"));
  EXPECT_THAT(refusal("lib door"), HasSubstr("only letters, digits"));
  EXPECT_THAT(refusal("libd\xC3\xB6r"), HasSubstr("only letters, digits"));
  EXPECT_THAT(refusal("lib"), HasSubstr("must go on with the component's"));
  EXPECT_THAT(refusal("libEXT-"), HasSubstr("must go on with the component's"));
}

TEST(ModuleName, TakesAHundredCharactersAndNoMore) {
  EXPECT_EQ(refusal(std::string(100, 'x')), "");
  EXPECT_THAT(refusal(std::string(101, 'x')), HasSubstr("at most 100 characters"));
}

TEST(ModuleName, AsksForExtInCapitalsAtTheBeginning) {
  for (const char* name : {"libext-door", "libdoor-EXT-x", "libnext-door"}) {
    EXPECT_THAT(refusal(name), HasSubstr("write it in capitals at the beginning")) << name;
  }
}

}  // namespace
