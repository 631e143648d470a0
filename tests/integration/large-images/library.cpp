// SPDX-License-Identifier: Apache-2.0
// The library checks large images with its real platform, a real module and a real
// package: the module is offered an update only when the checksum of all bytes is right.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "device-environment.h"
#include "fw-update-control.h"
#include "image-information.h"
#include "package-image.h"
#include "sparse-image.h"

namespace fs = std::filesystem;

namespace {

class LargeImage : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    setenv("FW_UPDATE_LOG", "none", 1);
    fs::copy_file(FW_MODULES_DIRECTORY "/libtuner.so", "/prd/usr/fwupdate/controls/libtuner.so");
  }

  static void writeImage(const std::string& folder, const SparseImage& image) {
    image.write(folder + "/tunerfw.bin");
    writeFile(folder + "/info.json", image::toText({"2.0.0", image.crc(), 0}));
  }

  static std::vector<std::string> offered(CallerTypes caller) {
    std::vector<std::string> libraries;
    char noData[] = "";
    for (const auto& item : FWUpdateContorl::getInstance()->fw_getUpdateItemList(caller, noData)) {
      libraries.emplace_back(item.file_name);
    }
    return libraries;
  }

  const std::vector<std::string> tuner = {"libtuner"};
};

TEST_F(LargeImage, OfMoreThanFourGibibytesIsCheckedToItsEnd) {
  writeImage("/lib/firmware/ext/tunerfw", markedImage(4 * kGibibyte + 100));

  EXPECT_EQ(offered(CALLER_UPGRADE_APP), tuner);
}

TEST_F(LargeImage, OfMoreThanTwoGibibytesIsCheckedInAPackage) {
  writeImage("/tmp/content", markedImage(2 * kGibibyte + 100));
  sandbox::packFolder("/tmp/content", "/opt/usr/apps/appbinarymanager/tunerempfw.img");
  fs::remove_all("/tmp/content");

  EXPECT_EQ(offered(CALLER_DEBUG), tuner);
}

TEST(SparseImage, HasTheChecksumOfItsBytes) {
  EXPECT_EQ((SparseImage{9, {{0, "123456789"}}}.crc()), 0x6A50465CU);
  EXPECT_EQ((SparseImage{9, {{0, "123"}, {3, "45678"}, {8, "9"}}}.crc()), 0x6A50465CU);
}

}  // namespace
