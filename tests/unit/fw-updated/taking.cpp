// SPDX-License-Identifier: Apache-2.0
// What was handed over, at the device's paths: in which order it gets onto the disk and into its
// place, and that nothing of it is there otherwise.
#include "taking.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "device-environment.h"
#include "file-calls.h"
#include "file-descriptor.h"
#include "public-keys.h"
#include "signed-package.h"

namespace fs = std::filesystem;

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using updated::HandOver;
using updated::HandOverKind;
using updated::Taken;

constexpr char kPackage[] = "/opt/usr/apps/appbinarymanager/tunerempfw.img";
constexpr char kImage[] = "/opt/usr/share/sbox/tunerfw/tunerfw.bin";
constexpr char kIncoming[] = "/var/lib/fw-updated/incoming";

class TakenFiles : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    writeFile(std::string(fwpackage::kKeyDirectory) + "/maker.pem", publicPem(key()));
    filecalls::reset();
  }
  void TearDown() override { filecalls::reset(); }

  static const fwpack::SigningKey& key() { return testSigningKey("ed25519"); }

  static base::FileDescriptor opened(const std::string& path) {
    return base::FileDescriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  }

  static HandOver signedAs(HandOverKind kind, fwpackage::Kind statedKind, const std::string& name) {
    writeFile("/tmp/package", signedFile(std::string(5000, 'p'), key(), {statedKind, name, "", "2.0.0", ""}));
    HandOver handOver;
    handOver.kind = kind;
    handOver.package = "tunerempfw";
    handOver.files[updated::kPackagePart] = opened("/tmp/package");
    return handOver;
  }
  static HandOver package() {
    return signedAs(HandOverKind::Package, fwpackage::Kind::ExtensionPackage, "tunerempfw");
  }
  static HandOver usb() { return signedAs(HandOverKind::Usb, fwpackage::Kind::UsbPackage, "tunerfw"); }
  static HandOver image() {
    writeFile("/tmp/tunerfw.bin", "image");
    writeFile("/tmp/info.json", "{}");
    fwpack::writeImageSignature("/tmp/tunerfw.bin", "/tmp/info.json", key(),
                                {fwpackage::Kind::Image, "tunerfw", "", "2.0.0", ""});
    HandOver handOver;
    handOver.kind = HandOverKind::Image;
    handOver.package = "tunerempfw";
    handOver.files[updated::kImagePart] = opened("/tmp/tunerfw.bin");
    handOver.files[updated::kInformationPart] = opened("/tmp/info.json");
    handOver.files[updated::kSignaturePart] = opened("/tmp/tunerfw.bin.sig");
    return handOver;
  }

  // What was put on the disk and got a name, in this order.
  static std::vector<std::string> order() {
    std::vector<std::string> calls = filecalls::made();
    calls.erase(std::remove_if(calls.begin(), calls.end(),
                               [](const std::string& call) { return call.rfind("unlink", 0) == 0; }),
                calls.end());
    return calls;
  }

  static Taken take(const HandOver& handOver) {
    filecalls::made().clear();
    return updated::take(handOver);
  }

  // Wherever a call fails, nothing of it is there unfinished, and the client is told.
  void expectNothingOf(HandOver (*made)(), const std::string& place) {
    ASSERT_EQ(take(made()).error, "");
    const std::vector<std::string> calls = order();
    for (std::size_t failing = 0; failing < calls.size(); ++failing) {
      SetUp();
      const HandOver handOver = made();
      filecalls::fails = calls[failing];

      const Taken taken = take(handOver);

      EXPECT_EQ(taken.error, "org.fwupdate.Update1.Error.Failed") << calls[failing];
      EXPECT_THAT(taken.sentence, HasSubstr("Input/output error")) << calls[failing];
      EXPECT_EQ(taken.folder, "");
      const bool hasName = failing + 1 == calls.size();  // only its directory is not on the disk
      EXPECT_EQ(exists(place), hasName) << calls[failing];
      EXPECT_FALSE(exists(fs::path(place).parent_path() / ".incoming")) << calls[failing];
    }
  }
};

TEST_F(TakenFiles, PackageIsOnTheDiskBeforeItHasItsNameAndTheNameAfterwards) {
  const Taken taken = take(package());

  EXPECT_EQ(taken.error, "");
  EXPECT_THAT(order(), ElementsAre("sync tunerempfw.img", "rename tunerempfw.img tunerempfw.img",
                                   "sync appbinarymanager"));
  EXPECT_EQ(readFile(kPackage), readFile("/tmp/package"));
}

TEST_F(TakenFiles, UsbPackageIsOnTheDiskBeforeAJobHasItsFolder) {
  const Taken taken = take(usb());

  EXPECT_EQ(taken.error, "");
  EXPECT_THAT(order(), ElementsAre("sync fw-updated", "sync tunerfw.bin", "sync .incoming",
                                   "rename .incoming 1", "sync incoming"));
  EXPECT_EQ(taken.folder, std::string(kIncoming) + "/1");
  EXPECT_EQ(readFile(taken.folder + "/tunerfw.bin"), readFile("/tmp/package"));

  const Taken next = take(usb());

  EXPECT_THAT(order(), ElementsAre("sync tunerfw.bin", "sync .incoming", "rename .incoming 1",
                                   "rename .incoming 2", "sync incoming"));
  EXPECT_EQ(next.folder, std::string(kIncoming) + "/2");
}

TEST_F(TakenFiles, ImageIsOnTheDiskBeforeItsFolderHasItsName) {
  for (const auto& renames : {std::vector<std::string>{"rename tunerfw tunerfw", "rename tunerfw tunerfw"},
                              std::vector<std::string>{"rename tunerfw tunerfw"}}) {  // in place of another
    std::vector<std::string> expected = {"sync .incoming", "sync signature", "sync info.json",
                                         "sync tunerfw.bin", "sync tunerfw"};
    expected.insert(expected.end(), renames.begin(), renames.end());
    expected.emplace_back("sync sbox");

    const Taken taken = take(image());

    EXPECT_EQ(taken.error, "") << taken.sentence;
    EXPECT_EQ(order(), expected);
    EXPECT_EQ(readFile(kImage), "image");
  }
}

TEST_F(TakenFiles, AreNotThereWhenACallFails) {
  expectNothingOf(package, kPackage);
  expectNothingOf(image, kImage);
}

TEST_F(TakenFiles, AreForTheServiceAloneUntilTheyAreChecked) {
  for (const mode_t mask : {mode_t{0}, mode_t{077}}) {
    umask(mask);
    std::vector<fs::perms> seen;
    filecalls::before = [&](const std::string& call) {
      if (call.rfind("sync tunerempfw", 0) == 0) {
        seen.push_back(fs::status("/opt/usr/apps/appbinarymanager/.incoming").permissions());
      }
    };

    EXPECT_EQ(take(package()).error, "");

    EXPECT_THAT(seen, ElementsAre(fs::perms::owner_all));
    EXPECT_EQ(fs::status(kPackage).permissions(), fs::perms(0644));
  }
}

TEST_F(TakenFiles, OfJobsThatAreOverAreRemoved) {
  const std::string used = take(usb()).folder;
  const std::string left = take(usb()).folder;
  for (const char* const place : {"/opt/usr/apps/appbinarymanager", "/opt/usr/share/sbox", kIncoming}) {
    writeFile(std::string(place) + "/.incoming/part", "p");
  }

  updated::removeLeftovers({used});

  EXPECT_TRUE(exists(used));
  EXPECT_FALSE(exists(left));
  for (const char* const place : {"/opt/usr/apps/appbinarymanager", "/opt/usr/share/sbox", kIncoming}) {
    EXPECT_FALSE(exists(std::string(place) + "/.incoming")) << place;
  }
}

}  // namespace
