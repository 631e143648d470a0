// SPDX-License-Identifier: Apache-2.0
// Module files that do not bind.
#include <filesystem>

#include "tool-test.h"

namespace {

using ::testing::HasSubstr;

class BrokenModule : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    installModule("libtuner");
    installModule("libwifi");
  }

  // The list that must name the broken module and show the others all the same.
  static Json::Value list(const std::string& broken, const Launch& launch = {}) {
    Json::Value listed = document({"list"}, launch);
    EXPECT_EQ(listed["exitCode"].asInt(), 9);
    EXPECT_EQ(listed["modules"].size(), 3u);
    EXPECT_EQ(listed["broken"].size(), 1u);
    EXPECT_EQ(listed["broken"][0]["library"].asString(), broken);
    for (const Json::Value& module : listed["modules"]) {
      EXPECT_EQ(module["kind"].asString(), module["library"] == broken ? "broken" : "ordinary");
      if (module["library"] == "libtuner") {
        EXPECT_EQ(module["firmware"].asString(), "tunerfw");
      }
    }
    return listed["broken"][0];
  }
};

TEST_F(BrokenModule, IsNamedWhenItIsNoLibrary) {
  writeFile(std::string(kControls) + "libbad.so", "no library");

  EXPECT_THAT(list("libbad")["message"].asString(), HasSubstr("libbad.so is not a library"));
}

TEST_F(BrokenModule, IsNamedWhenItLacksAnEntryPoint) {
  installOddModule("without-checkVersion");

  EXPECT_THAT(list("libodd")["message"].asString(), HasSubstr("undefined symbol: checkVersion"));
}

TEST_F(BrokenModule, IsNamedWhenItsLinkLeadsNowhere) {
  std::filesystem::create_symlink("/nowhere.so", std::string(kControls) + "libgone.so");

  EXPECT_THAT(list("libgone")["message"].asString(), HasSubstr("leads nowhere"));
}

TEST_F(BrokenModule, IsNamedWhenItsIdentifierIsBad) {
  installOddModule();

  EXPECT_THAT(list("libodd", {{"ODD_MODULE=bad-identifier"}})["message"].asString(),
              HasSubstr("\"odd-emp\""));
}

TEST_F(BrokenModule, WithABadIdentifierKeepsOnlyItselfFromBeingUsed) {
  installOddModule();
  installImage("tunerfw");
  const Launch oddly{{"ODD_MODULE=bad-identifier"}};

  EXPECT_EQ(document({"update", "libodd"}, oddly)["exitCode"].asInt(), 9);
  EXPECT_EQ(document({"update", "libtuner"}, oddly)["exitCode"].asInt(), 0);
}

TEST_F(BrokenModule, IsNamedWhenItThrowsInsteadOfTellingItsVersion) {
  installOddModule();

  const Json::Value listed = document({"list"}, {{"ODD_MODULE=throwing-version"}});

  EXPECT_EQ(listed["exitCode"].asInt(), 6);
  EXPECT_EQ(listed["broken"][0]["library"].asString(), "libodd");
}

TEST_F(BrokenModule, LeavesATableForPeople) {
  writeFile(std::string(kControls) + "libbad.so", "no library");

  const Ended listed = run({"list"});

  EXPECT_THAT(listed.out, HasSubstr("libtuner  tunerfw   0.0.0    ordinary\n"));
  EXPECT_THAT(listed.err, HasSubstr("fw-update: libbad.so is not a library"));
}

}  // namespace
