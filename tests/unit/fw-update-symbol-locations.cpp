// SPDX-License-Identifier: Apache-2.0
// Update types and file locations.
#include <filesystem>

#include "library-test.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class FileLocations : public LibraryTest {
 protected:
  FWUpdateSymbol tuner() {
    scripted::module("libtuner").empId = "tunerempfw";
    return bound("libtuner");
  }

  // Where a request of this caller looks for its image: from the message that says
  // that it is not there.
  std::string lookedFor(int caller, const char* data) {
    FWUpdateSymbol symbol = tuner();
    writeFile("/opt/usr/apps/appbinarymanager/tunerempfw.img", "image");
    std::string text = data;
    symbol.isNeedUpdate(static_cast<CallerTypes>(caller), text.data());
    const std::string message = recording::texts().back();
    const std::string start = "Error: Firmware binary file no exist (";
    return message.substr(start.size(), message.size() - start.size() - 1);
  }
};

constexpr const char* kFromUsb = "/opt/media/USBDriveA/tunerfw/tunerfw.bin";
constexpr const char* kFromPackage = "/opt/usr/apps/appbinarymanager/emps/tunerempfw/tunerfw.bin";
constexpr const char* kFromBuiltin = "/lib/firmware/ext/tunerfw/tunerfw.bin";
constexpr const char* kFromSbox = "/opt/usr/share/sbox/tunerfw/tunerfw.bin";

}  // namespace

TEST_F(FileLocations, FollowTheUpdateType) {
  FWUpdateSymbol symbol = tuner();
  std::filesystem::create_directories("/opt/media/USBDriveA");

  EXPECT_EQ(symbol.getBinaryPath(UPDATE_TYPE_USB), kFromUsb);
  EXPECT_EQ(symbol.getBinaryPath(UPDATE_TYPE_EMP), kFromPackage);
  EXPECT_EQ(symbol.getBinaryPath(UPDATE_TYPE_BUILTIN), kFromBuiltin);
  EXPECT_EQ(symbol.getBinaryPath(UPDATE_TYPE_SBOX), kFromSbox);
  EXPECT_EQ(symbol.getInformationPath(UPDATE_TYPE_USB), "/opt/media/USBDriveA/tunerfw/info.json");
  EXPECT_EQ(symbol.getInformationPath(UPDATE_TYPE_EMP),
            "/opt/usr/apps/appbinarymanager/emps/tunerempfw/info.json");
  EXPECT_EQ(symbol.getInformationPath(UPDATE_TYPE_BUILTIN), "/lib/firmware/ext/tunerfw/info.json");
  EXPECT_EQ(symbol.getInformationPath(UPDATE_TYPE_SBOX), "/opt/usr/share/sbox/tunerfw/info.json");
  EXPECT_THAT(recording::messages(), IsEmpty());
}

TEST_F(FileLocations, TreatAnyOtherTypeAsThePackage) {
  FWUpdateSymbol symbol = tuner();

  EXPECT_EQ(symbol.getBinaryPath(static_cast<UPDATE_TYPE>(4)), kFromPackage);
  EXPECT_EQ(symbol.getBinaryPath(static_cast<UPDATE_TYPE>(-1)), kFromPackage);
  EXPECT_EQ(symbol.getInformationPath(static_cast<UPDATE_TYPE>(9)),
            "/opt/usr/apps/appbinarymanager/emps/tunerempfw/info.json");
}

TEST_F(FileLocations, AreEmptyWithoutAUsbDriveAndSayWhoMissedIt) {
  FWUpdateSymbol symbol = tuner();

  EXPECT_EQ(symbol.getBinaryPath(UPDATE_TYPE_USB), "");
  EXPECT_EQ(symbol.getInformationPath(UPDATE_TYPE_USB), "");

  EXPECT_THAT(recording::messages(),
              ElementsAre("6 fw-update-symbol.cpp getBinaryPath Error: Usb mount path Not found.",
                          "6 fw-update-symbol.cpp getInformationPath Error: Usb mount path Not found."));
  EXPECT_THAT(recording::traceRecords(), ::testing::SizeIs(2));
}

TEST_F(FileLocations, PreferTheUnnumberedUsbDrive) {
  FWUpdateSymbol symbol("libabc");
  std::filesystem::create_directories("/opt/media/USBDriveA1");
  std::filesystem::create_directories("/opt/media/USBDriveA");
  std::string drive;

  EXPECT_TRUE(symbol.getUsbMountPath(drive));

  EXPECT_EQ(drive, "/opt/media/USBDriveA/");
}

TEST_F(FileLocations, FindTheLowestNumberedUsbDrive) {
  FWUpdateSymbol symbol("libabc");
  std::filesystem::create_directories("/opt/media/USBDriveA10");
  std::string drive;
  EXPECT_TRUE(symbol.getUsbMountPath(drive));
  EXPECT_EQ(drive, "/opt/media/USBDriveA10/");

  std::filesystem::create_directories("/opt/media/USBDriveA3");
  EXPECT_TRUE(symbol.getUsbMountPath(drive));
  EXPECT_EQ(drive, "/opt/media/USBDriveA3/");

  std::filesystem::create_directories("/opt/media/USBDriveA1");
  EXPECT_TRUE(symbol.getUsbMountPath(drive));
  EXPECT_EQ(drive, "/opt/media/USBDriveA1/");
}

TEST_F(FileLocations, NeverFindTheEleventhUsbDrive) {
  FWUpdateSymbol symbol("libabc");
  std::filesystem::create_directories("/opt/media/USBDriveA11");
  std::filesystem::create_directories("/opt/media/USBDriveA0");
  std::string drive = "untouched";

  EXPECT_FALSE(symbol.getUsbMountPath(drive));

  EXPECT_EQ(drive, "untouched");
}

TEST_F(FileLocations, DoNotTakeAFileForAUsbDrive) {
  FWUpdateSymbol symbol("libabc");
  writeFile("/opt/media/USBDriveA", "");
  std::string drive = "untouched";

  EXPECT_FALSE(symbol.getUsbMountPath(drive));
}

TEST_F(FileLocations, CountFilesAndDirectoriesAsExisting) {
  FWUpdateSymbol symbol("libabc");
  writeFile("/tmp/file", "");

  EXPECT_TRUE(symbol.file_exists("/tmp/file"));
  EXPECT_TRUE(symbol.file_exists("/tmp"));
  EXPECT_FALSE(symbol.file_exists("/tmp/missing"));
  EXPECT_FALSE(symbol.file_exists(""));
}

TEST_F(FileLocations, FollowLinks) {
  FWUpdateSymbol symbol("libabc");
  std::filesystem::create_symlink("file", "/tmp/link");
  EXPECT_FALSE(symbol.file_exists("/tmp/link"));

  writeFile("/tmp/file", "");

  EXPECT_TRUE(symbol.file_exists("/tmp/link"));
}

TEST_F(FileLocations, SeeThePackageImageOnlyOfABoundModule) {
  scripted::module("libEXT-abc").empId = "abcemp";
  FWUpdateSymbol ordinary = bound("libabc");
  FWUpdateSymbol extension = bound("libEXT-abc");
  EXPECT_FALSE(ordinary.getIMGExists());

  writeFile("/opt/usr/apps/appbinarymanager/abcemp.img", "");

  EXPECT_TRUE(ordinary.getIMGExists());
  EXPECT_FALSE(extension.getIMGExists());
}

TEST_F(FileLocations, ServeADebugRequestWithoutDataFromThePackage) {
  FWUpdateSymbol symbol = tuner();
  writeFile("/opt/usr/apps/appbinarymanager/tunerempfw.img", "image");

  EXPECT_EQ(symbol.isNeedUpdate(CALLER_DEBUG, nullptr), -1);

  EXPECT_EQ(recording::texts().back(),
            std::string("Error: Firmware binary file no exist (") + kFromPackage + ")");
}

struct CallerCase {
  int caller;
  const char* data;
  const char* path;
};

void PrintTo(const CallerCase& row, std::ostream* out) {
  *out << row.caller << " \"" << row.data << "\"";
}

class CallerLocation : public FileLocations, public ::testing::WithParamInterface<CallerCase> {};

TEST_P(CallerLocation, DecidesWhereTheImageIsLookedFor) {
  std::filesystem::create_directories("/opt/media/USBDriveA");

  EXPECT_EQ(lookedFor(GetParam().caller, GetParam().data), GetParam().path);
}

INSTANTIATE_TEST_SUITE_P(
    FileLocations, CallerLocation,
    ::testing::Values(CallerCase{0, "", kFromUsb}, CallerCase{0, "anything", kFromUsb},
                      CallerCase{1, "USB", kFromUsb}, CallerCase{1, "usb", kFromPackage},
                      CallerCase{1, "", kFromPackage}, CallerCase{1, "USB ", kFromPackage},
                      CallerCase{2, "USB", kFromPackage}, CallerCase{3, "", kFromPackage},
                      CallerCase{4, "USB", kFromBuiltin}, CallerCase{5, "", kFromSbox},
                      CallerCase{6, "", kFromBuiltin}, CallerCase{7, "", kFromBuiltin},
                      CallerCase{8, "", kFromPackage}, CallerCase{1000, "", kFromPackage},
                      CallerCase{-1, "", kFromPackage}));
