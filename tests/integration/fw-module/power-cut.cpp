// SPDX-License-Identifier: Apache-2.0
// The power cut of fw-module check: what waits for the disk has nothing to fear from it.
#include <unistd.h>

#include "fw-module-test.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class PowerCutOfAModule : public FwModuleTest {
 protected:
  void SetUp() override {
    FwModuleTest::SetUp();
    if (geteuid() != 0 || access("/dev/fuse", R_OK | W_OK) != 0 ||
        access("/dev/loop-control", R_OK | W_OK) != 0) {
      GTEST_SKIP() << "recording a disk takes root, FUSE and loop devices";
    }
  }

  Json::Value checked(const std::string& module) {
    return document({"check", copyOf(module, module), "--power-cut", "--keep", FW_BINARY_DIRECTORY});
  }
};

TEST_F(PowerCutOfAModule, FindsNothingInOneThatWaitsForTheDisk) {
  for (const char* const module : {"libtuner.so", "libminimal.so"}) {
    const Json::Value report = checked(module);

    EXPECT_THAT(findingsOf(report), IsEmpty()) << report["findings"].toStyledString();
    EXPECT_EQ(resultOf(report, "power-cut"), "passed");
  }
}

TEST_F(PowerCutOfAModule, FindsOneThatDoesNot) {
  const Json::Value report = checked("sound.so");

  ASSERT_THAT(findingsOf(report), ElementsAre("power-cut"));
  EXPECT_EQ(report["findings"][0]["entryPoint"].asString(), "doUpdate");
  EXPECT_THAT(report["findings"][0]["message"].asString(),
              HasSubstr("have the old one although doUpdate had answered 0"));
}

TEST_F(PowerCutOfAModule, FindsOneThatWaitsForItsFileAlone) {
  const Json::Value report = checked("unsynced-directory.so");

  ASSERT_THAT(findingsOf(report), ElementsAre("power-cut"));
  EXPECT_THAT(report["findings"][0]["message"].asString(),
              HasSubstr("have the old one although doUpdate had answered 0"));
}

TEST_F(PowerCutOfAModule, FindsOneThatWaitsForItsDirectoryAlone) {
  const Json::Value report = checked("unsynced-file.so");

  ASSERT_THAT(findingsOf(report), ElementsAre("power-cut"));
  EXPECT_THAT(report["findings"][0]["message"].asString(),
              HasSubstr("have neither the old nor the new firmware"));
}

TEST_F(FwModuleTest, CutsThePowerOnlyWhenAsked) {
  const Json::Value report =
      document({"check", copyOf("sound.so", "sound.so"), "--keep", FW_BINARY_DIRECTORY});

  EXPECT_EQ(resultOf(report, "power-cut"), "not-checked");
}

}  // namespace
