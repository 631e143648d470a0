// SPDX-License-Identifier: Apache-2.0
// A module's extension package: download, mount, unmount.
#include <filesystem>

#include "library-test.h"
#include "mounted-over.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace fs = std::filesystem;

namespace {

const std::string kImage = "/opt/usr/apps/appbinarymanager/empAB12.img";
const std::string kDirectory = "/opt/usr/apps/appbinarymanager/emps/empAB12";
const std::string kMountCall = "PS_Mount(-o ro,loop,nodev,nosuid " + kImage + " " + kDirectory + "|1024|0|0)";
const std::string kUmountCall = "PS_Umount(" + kDirectory + "|43|0|0)";

std::string said(int priority, const std::string& function, const std::string& text) {
  return std::to_string(priority) + " fw-update-symbol.cpp " + function + " " + text;
}

class ExtensionPackage : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    scripted::module("libabc").empId = "empAB12";
    fs::create_directories(kPackageMounts);
  }
};

int refuse(const std::string&, int& result) {
  result = 22;
  return 0;
}

}  // namespace

TEST_F(ExtensionPackage, NamesFilesAndFirmwareAfterTheIdentifier) {
  FWUpdateSymbol symbol = bound();

  EXPECT_EQ(symbol.getEMPName(), "empAB12");
  EXPECT_EQ(symbol.getFirmwareName(), "AB12");
  EXPECT_EQ(symbol.getBinaryPath(UPDATE_TYPE_EMP), kDirectory + "/AB12.bin");
  EXPECT_FALSE(symbol.getIMGExists());
  writeFile(kImage, "");
  EXPECT_TRUE(symbol.getIMGExists());
}

// ---- Download -----------------------------------------------------------------------

TEST_F(ExtensionPackage, IsRequestedForDownloadWithoutCallback) {
  FWUpdateSymbol symbol = bound();

  EXPECT_TRUE(symbol.downloadEMP()) << "the image is not there yet";

  EXPECT_THAT(recording::everything(), ElementsAre("ABM_DownloadAppBinary(null, null, empAB12)",
                                                   "log: Request (empAB12) emp download"));
  EXPECT_THAT(recording::messages(), ElementsAre(said(4, "downloadEMP", "Request (empAB12) emp download")));
  EXPECT_EQ(recording::logLines()[0].format, "%s: %s(%d) > Request (%s) emp download");
  EXPECT_THAT(recording::traceRecords(), IsEmpty());
}

TEST_F(ExtensionPackage, ReportsARefusedDownload) {
  FWUpdateSymbol symbol = bound();
  recording::answers().downloadAccepted = false;

  EXPECT_FALSE(symbol.downloadEMP());

  EXPECT_THAT(recording::calls(), ElementsAre("ABM_DownloadAppBinary(null, null, empAB12)"));
  EXPECT_THAT(recording::messages(),
              ElementsAre(said(6, "downloadEMP", "Error: EMP ABM_DownloadAppBinary fail.(empAB12)")));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("Error: EMP ABM_DownloadAppBinary fail.(%s)"));
}

TEST_F(ExtensionPackage, IsNeverRequestedForAModuleWithoutOne) {
  FWUpdateSymbol extension = bound("libEXT-abc");
  FWUpdateSymbol unbound("libabc");

  EXPECT_FALSE(extension.downloadEMP());
  EXPECT_FALSE(unbound.downloadEMP());

  EXPECT_THAT(recording::everything(), IsEmpty());
}

TEST_F(ExtensionPackage, IsNeverRequestedAfterAWrongIdentifier) {
  scripted::module("libabc").empId = "EMP01";
  FWUpdateSymbol symbol = bound();

  EXPECT_FALSE(symbol.downloadEMP());

  EXPECT_THAT(recording::everything(), IsEmpty());
}

// ---- Mount --------------------------------------------------------------------------

TEST_F(ExtensionPackage, IsMountedOnItsDirectoryAfterAnUnmount) {
  FWUpdateSymbol symbol = bound();
  writeFile(kImage, "image");
  fs::create_directory(kDirectory);

  EXPECT_TRUE(symbol.mountEMPImage());

  EXPECT_THAT(
      recording::everything(),
      ElementsAre(kUmountCall, "log: Umount dir[" + kDirectory + "] successfully.",
                  "log: PsMntCmd:[-o ro,loop,nodev,nosuid " + kImage + " " + kDirectory + "]", kMountCall));
  EXPECT_THAT(recording::traceRecords(), IsEmpty());
}

TEST_F(ExtensionPackage, IsMountedWhenNothingWasMountedBefore) {
  FWUpdateSymbol symbol = bound();
  writeFile(kImage, "image");
  recording::answers().unmount = refuse;
  fs::create_directory(kDirectory);

  EXPECT_TRUE(symbol.mountEMPImage());

  EXPECT_THAT(recording::calls(), ElementsAre(kUmountCall, kMountCall));
  EXPECT_EQ(recording::texts()[0], "Error(iRet1=0, iRet2=22) while unmounitng [" + kDirectory + "]");
}

TEST_F(ExtensionPackage, IsMountedOnADirectoryMadeForIt) {
  FWUpdateSymbol symbol = bound();
  writeFile(kImage, "image");

  EXPECT_TRUE(symbol.mountEMPImage());

  EXPECT_TRUE(fs::is_directory(kDirectory));
  EXPECT_THAT(
      recording::everything(),
      ElementsAre("log: Umount dir[" + kDirectory + "] is invalid.",
                  "log: PsMntCmd:[-o ro,loop,nodev,nosuid " + kImage + " " + kDirectory + "]", kMountCall));
}

TEST_F(ExtensionPackage, IsUnmountedFirstOnEveryMount) {
  FWUpdateSymbol symbol = bound();
  writeFile(kImage, "image");
  fs::create_directory(kDirectory);

  EXPECT_TRUE(symbol.mountEMPImage());
  EXPECT_TRUE(symbol.mountEMPImage());

  EXPECT_THAT(recording::calls(), ElementsAre(kUmountCall, kMountCall, kUmountCall, kMountCall));
}

TEST_F(ExtensionPackage, CannotBeMountedBeforeItIsDownloaded) {
  FWUpdateSymbol symbol = bound();
  ASSERT_TRUE(symbol.downloadEMP());
  recording::reset();

  EXPECT_FALSE(symbol.mountEMPImage());

  EXPECT_THAT(recording::messages(),
              ElementsAre(said(6, "mountEMPImage", "Error: file no exist (" + kImage + ")")));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("Error: file no exist (%s)"));
  EXPECT_THAT(recording::calls(), IsEmpty());
  EXPECT_FALSE(exists(kDirectory));
}

TEST_F(ExtensionPackage, IsMissingForAModuleWithoutOne) {
  FWUpdateSymbol symbol = bound("libEXT-abc");

  EXPECT_FALSE(symbol.mountEMPImage());

  EXPECT_THAT(recording::messages(), ElementsAre(said(6, "mountEMPImage", "Error: file no exist ()")));
  EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(ExtensionPackage, ReportsAFailedMount) {
  FWUpdateSymbol symbol = bound();
  fs::create_directories(kImage);  // there, but no file

  EXPECT_FALSE(symbol.mountEMPImage());

  EXPECT_THAT(recording::messages(),
              ElementsAre("6 fw-update-mount-manager.cpp UMount Umount dir[" + kDirectory + "] is invalid.",
                          "6 fw-update-mount-manager.cpp Mount srcFile[" + kImage + "] is not exist.",
                          said(6, "mountEMPImage", "Error: Firmware EMP Mount Fail.(empAB12)")));
  EXPECT_THAT(recording::traceFormats(),
              ElementsAre("Umount dir[%s] is invalid.", "srcFile[%s] is not exist.",
                          "Error: Firmware EMP Mount Fail.(%s)"));
  EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(ExtensionPackage, ReportsAMountThatTheServiceRefuses) {
  FWUpdateSymbol symbol = bound();
  writeFile(kImage, "image");
  const MountedOver dev = MountedOver::memory("/dev", "mode=0755");
  writeFile("/dev/loop0", "");
  recording::answers().mount = refuse;

  EXPECT_FALSE(symbol.mountEMPImage());

  EXPECT_EQ(recording::messages().back(),
            said(6, "mountEMPImage", "Error: Firmware EMP Mount Fail.(empAB12)"));
}

// ---- Unmount ------------------------------------------------------------------------

TEST_F(ExtensionPackage, SaysAtErrorPriorityThatItWasUnmounted) {
  FWUpdateSymbol symbol = bound();
  fs::create_directory(kDirectory);

  EXPECT_TRUE(symbol.unmountEMPImage());

  EXPECT_THAT(recording::everything(),
              ElementsAre(kUmountCall, "log: Umount dir[" + kDirectory + "] successfully.",
                          "log: EMP UMount Success " + kImage));
  EXPECT_EQ(recording::messages().back(), said(6, "unmountEMPImage", "EMP UMount Success " + kImage));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("EMP UMount Success %s"));
}

TEST_F(ExtensionPackage, ReportsAnUnmountThatTheServiceRefuses) {
  FWUpdateSymbol symbol = bound();
  fs::create_directory(kDirectory);
  recording::answers().unmount = refuse;

  EXPECT_FALSE(symbol.unmountEMPImage());

  EXPECT_THAT(recording::calls(), ElementsAre(kUmountCall));
  EXPECT_THAT(recording::messages(),
              ElementsAre("6 fw-update-mount-manager.cpp UMount Error(iRet1=0, iRet2=22) while unmounitng [" +
                              kDirectory + "]",
                          said(6, "unmountEMPImage", "Error: Firmware EMP UMount Fail.(empAB12)")));
  EXPECT_THAT(recording::traceFormats(), ElementsAre("Error(iRet1=%d, iRet2=%d) while unmounitng [%s]",
                                                     "Error: Firmware EMP UMount Fail.(%s)"));
}

TEST_F(ExtensionPackage, CannotBeUnmountedWithoutItsDirectory) {
  FWUpdateSymbol symbol = bound();

  EXPECT_FALSE(symbol.unmountEMPImage());

  EXPECT_THAT(recording::messages(),
              ElementsAre("6 fw-update-mount-manager.cpp UMount Umount dir[" + kDirectory + "] is invalid.",
                          said(6, "unmountEMPImage", "Error: Firmware EMP UMount Fail.(empAB12)")));
  EXPECT_THAT(recording::calls(), IsEmpty());
}
