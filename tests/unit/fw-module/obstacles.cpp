// SPDX-License-Identifier: Apache-2.0
// What stands in a trial's way, in this order.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <optional>

#include "device-environment.h"
#include "temporary-mount.h"
#include "trials/trials.h"

namespace {

using fwmodule::cutsNoPower;
using fwmodule::isExtension;
using fwmodule::isOrdinary;
using fwmodule::knowsNoVersion;
using fwmodule::nothing;
using fwmodule::Subject;
using fwmodule::takesNoImage;
using fwmodule::takesNoVersion;

// An ordinary module that everything can be tried with.
Subject ready() {
  Subject subject;
  subject.firmware = "tunerfw";
  subject.activeVersion = "1.0";
  subject.newerVersion = "1.1";
  subject.updates = true;
  subject.cutPower = true;
  return subject;
}

TEST(Obstacles, AreNoneForAModuleThatAnswersAndUpdates) {
  for (const fwmodule::Obstacle obstacle :
       {nothing, isExtension, knowsNoVersion, takesNoVersion, takesNoImage}) {
    EXPECT_EQ(obstacle(ready()), nullptr);
  }
  EXPECT_STREQ(isOrdinary(ready()), "");  // others decide
}

TEST(Obstacles, AreThatAnExtensionModuleFindsItsImages) {
  Subject subject = ready();
  subject.extension = true;

  for (const fwmodule::Obstacle obstacle : {isExtension, takesNoVersion, takesNoImage}) {
    EXPECT_STREQ(obstacle(subject), "an EXT- module finds its images itself");
  }
  EXPECT_EQ(isOrdinary(subject), nullptr);
}

TEST(Obstacles, AreThatNoVersionIsKnown) {
  Subject subject = ready();
  subject.newerVersion = "";
  EXPECT_STREQ(takesNoVersion(subject), "it needs no version, as far as found");
  EXPECT_STREQ(takesNoImage(subject), "it needs no version, as far as found");

  subject.firmware = "";
  EXPECT_STREQ(takesNoVersion(subject), "it has no firmware name");

  subject.activeVersion = "";
  EXPECT_STREQ(knowsNoVersion(subject), "it does not tell its version");
}

TEST(Obstacles, AreThatNoImageCouldBeWritten) {
  Subject subject = ready();
  subject.updates = false;

  EXPECT_EQ(takesNoVersion(subject), nullptr);
  EXPECT_STREQ(takesNoImage(subject), "no image could be written");
}

class ObstaclesOfAPowerCut : public DeviceTest {
 protected:
  static constexpr char kMissing[] = "recording a disk takes root, FUSE and loop devices";

  void SetUp() override {
    DeviceTest::SetUp();
    dev_.emplace(TemporaryMount::memory("/dev"));
    writeFile("/dev/fuse", "");
    writeFile("/dev/loop-control", "");
  }

 private:
  std::optional<TemporaryMount> dev_;
};

TEST_F(ObstaclesOfAPowerCut, AreThoseOfItsUpdatesAndThatNobodyAskedForIt) {
  EXPECT_EQ(cutsNoPower(ready()), nullptr);

  Subject subject = ready();
  subject.updates = false;
  EXPECT_STREQ(cutsNoPower(subject), "no image could be written");

  subject.cutPower = false;
  EXPECT_STREQ(cutsNoPower(subject), "it was not asked for; --power-cut does");
}

TEST_F(ObstaclesOfAPowerCut, AreAMissingDevice) {
  for (const char* const device : {"/dev/fuse", "/dev/loop-control"}) {
    std::filesystem::remove(device);
    EXPECT_STREQ(cutsNoPower(ready()), kMissing) << device;
    writeFile(device, "");
  }
  EXPECT_EQ(cutsNoPower(ready()), nullptr);
}

TEST_F(ObstaclesOfAPowerCut, AreFewerRightsThanRoots) {
  for (const char* const device : {"/dev/fuse", "/dev/loop-control"}) {
    std::filesystem::permissions(device, std::filesystem::perms::all);
  }
  std::filesystem::permissions("/dev", std::filesystem::perms::all);
  if (seteuid(65534) != 0) {
    GTEST_SKIP() << "a user namespace has only one user";
  }
  const char* const found = cutsNoPower(ready());

  ASSERT_EQ(seteuid(0), 0);
  EXPECT_STREQ(found, kMissing);
}

}  // namespace
