#include "module-name.h"

#include <gmock/gmock.h>

namespace {

using fwmodule::BadName;
using fwmodule::firmwareOf;
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

TEST(ModuleName, GivesPackageAndFirmwareTheirNames) {
  const ModuleName name = parseModuleName("libdoor");

  EXPECT_EQ(name.library, "libdoor");
  EXPECT_FALSE(name.extension);
  EXPECT_EQ(name.identifier, "doorempfw");
  EXPECT_EQ(name.firmware, "doorfw");
}

TEST(ModuleName, NeedsNoLib) {
  EXPECT_EQ(parseModuleName("door").firmware, "doorfw");
}

TEST(ModuleName, LeavesOutWhatIdentifiersCannotHold) {
  EXPECT_EQ(parseModuleName("libfront_door-2").identifier, "frontdoor2empfw");
}

TEST(ModuleName, KnowsAModuleWithAProcedureOfItsOwn) {
  const ModuleName name = parseModuleName("libEXT-door");

  EXPECT_TRUE(name.extension);
  EXPECT_EQ(name.firmware, "doorfw");
}

// Removing the first "emp" of the identifier has to give the firmware's name.
TEST(ModuleName, PutsEmpFirstWhereTheComponentHasOneItself) {
  const ModuleName name = parseModuleName("libtemperature");

  EXPECT_EQ(name.firmware, "temperaturefw");
  EXPECT_EQ(name.identifier, "emptemperaturefw");
  EXPECT_EQ(firmwareOf(name.identifier), name.firmware);
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
  for (const char* name : {"libext-door", "libdoor-EXT-x", "libnext-door"})
    EXPECT_THAT(refusal(name), HasSubstr("write it in capitals at the beginning")) << name;
}

TEST(ModuleName, FirmwareIsTheIdentifierWithoutItsFirstEmp) {
  EXPECT_EQ(firmwareOf("doorempfw"), "doorfw");
  EXPECT_EQ(firmwareOf("empempfw"), "empfw");
  EXPECT_EQ(firmwareOf("doorfw"), "doorfw");
  EXPECT_EQ(firmwareOf("emp"), "");
}

}  // namespace
