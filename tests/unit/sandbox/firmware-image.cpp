// SPDX-License-Identifier: Apache-2.0
#include "firmware-image.h"
#include "image-information.h"

#include <json/json.h>

#include <filesystem>
#include <sstream>

#include "device-environment.h"

namespace fs = std::filesystem;

namespace {

class FirmwareImage : public DeviceTest {};

Json::Value information(const std::string& folder) {
  std::istringstream text(DeviceTest::readFile(folder + "/info.json"));
  Json::Value value;
  text >> value;
  return value;
}

TEST_F(FirmwareImage, HasTheSameContentOnEveryMachine) {
  EXPECT_EQ(image::crcOf(sandbox::imageContent("tunerfw", "2.0.0", 4096)), 0x6104B27EU);
}

TEST_F(FirmwareImage, DiffersFromVersionToVersionAndFromNameToName) {
  const auto image = sandbox::imageContent("tunerfw", "2.0.0", 64);

  EXPECT_NE(sandbox::imageContent("tunerfw", "2.0.1", 64), image);
  EXPECT_NE(sandbox::imageContent("panelfw", "2.0.0", 64), image);
}

TEST_F(FirmwareImage, IsWrittenWithTheInformationAboutIt) {
  sandbox::writeFirmware("/lib/firmware/ext", "tunerfw", "2.0.0", 1000, 7);

  const auto content = readFile("/lib/firmware/ext/tunerfw/tunerfw.bin");
  const auto about = information("/lib/firmware/ext/tunerfw");
  EXPECT_EQ(content.size(), 1000U);
  EXPECT_EQ(about["version"].asString(), "2.0.0");
  EXPECT_EQ(about["crc"].asUInt(), image::crcOf(content));
  EXPECT_EQ(about["expected_time"].asUInt(), 7U);
}

TEST_F(FirmwareImage, ReplacesAnOlderOneAndLeavesNothingElse) {
  sandbox::writeFirmware("/lib/firmware/ext", "tunerfw", "1.0.0", 2000, 7);

  sandbox::writeFirmware("/lib/firmware/ext", "tunerfw", "2.0.0", 1000, 7);

  const auto folder = fs::directory_iterator("/lib/firmware/ext/tunerfw");
  EXPECT_EQ(std::distance(folder, fs::directory_iterator()), 2);
  EXPECT_EQ(information("/lib/firmware/ext/tunerfw")["version"].asString(), "2.0.0");
  EXPECT_EQ(fs::file_size("/lib/firmware/ext/tunerfw/tunerfw.bin"), 1000U);
}

TEST_F(FirmwareImage, CorruptHasAnotherByteInItsMiddleAndDoesNotMatchItsCrc) {
  sandbox::writeFirmware("/lib/firmware/ext", "panelfw", "2.1.0", 1000, 7);
  std::string expected = readFile("/lib/firmware/ext/panelfw/panelfw.bin");
  expected[500] = static_cast<char>(~expected[500]);

  sandbox::corruptFirmware("/lib/firmware/ext", "panelfw");

  const auto content = readFile("/lib/firmware/ext/panelfw/panelfw.bin");
  EXPECT_EQ(content, expected);
  EXPECT_NE(information("/lib/firmware/ext/panelfw")["crc"].asUInt(), image::crcOf(content));
}

TEST_F(FirmwareImage, SaysWhichImageItCannotWrite) {
  writeFile("/lib/firmware/ext/tunerfw/tunerfw.bin.new/in-the-way", "");

  try {
    sandbox::writeFirmware("/lib/firmware/ext", "tunerfw", "2.0.0", 1000, 7);
    FAIL() << "written over a directory";
  } catch (const std::system_error& refused) {
    EXPECT_NE(std::string(refused.what()).find("tunerfw.bin.new"), std::string::npos);
  }
}

}  // namespace
