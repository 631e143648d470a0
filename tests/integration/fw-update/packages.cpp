// SPDX-License-Identifier: Apache-2.0
// Updates from extension packages: a real image, really mounted, or in a user
// namespace unpacked.
#include <filesystem>
#include <fstream>
#include <string>

#include "package-image.h"
#include "tool-test.h"

namespace {

using ::testing::HasSubstr;

constexpr const char* kPackages = "/opt/usr/apps/appbinarymanager";
constexpr const char* kImage = "/opt/usr/apps/appbinarymanager/wifiempfw.img";

class Packages : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    installModule("libwifi");
    sandbox::writePackage(kPackages, "wifiempfw", "wififw", "1.5.0", 1000000, 60);
  }

  static bool isMounted() {
    std::ifstream mounts("/proc/self/mounts");
    for (std::string line; std::getline(mounts, line);) {
      if (line.find("/emps/wifiempfw") != std::string::npos) {
        return true;
      }
    }
    return false;
  }
};

TEST_F(Packages, UpdateTakesThePackageAndLeavesNothingOfIt) {
  const Ended ended = run({"update", "libwifi", "--caller", "debug"});

  EXPECT_EQ(ended.exitCode, 0) << ended.err;
  EXPECT_THAT(ended.out, HasSubstr("Version 0.0.0 -> 1.5.0"));
  EXPECT_FALSE(exists(kImage));
  EXPECT_TRUE(exists(std::string(kPackages) + "/emps/wifiempfw"));
  EXPECT_FALSE(isMounted());
}

TEST_F(Packages, ADamagedPackageIsRefusedAndNothingStaysMounted) {
  std::filesystem::resize_file(kImage, 5000);

  const Ended ended = run({"update", "libwifi", "--caller", "debug"});

  EXPECT_EQ(ended.exitCode, 5);
  EXPECT_THAT(ended.err, HasSubstr("The extension package wifiempfw could not be mounted."));
  EXPECT_FALSE(isMounted());
}

}  // namespace
