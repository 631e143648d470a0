// SPDX-License-Identifier: Apache-2.0
#include "artifact-check.h"

#include <gmock/gmock.h>
#include <sys/mman.h>
#include <unistd.h>

#include "device-environment.h"
#include "file-descriptor.h"
#include "signed-package.h"

namespace {

using fleet::checkArtifacts;
using fleet::InstallFile;
using fleet::Kind;
using ::testing::HasSubstr;

class FleetCheck : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    writeFile("/usr/share/fw-update/keys/maker.pem", publicPem(testSigningKey("ed25519")));
  }

  InstallFile file(const std::string& name, const std::string& content) {
    descriptors_.emplace_back(memfd_create("artifact", MFD_CLOEXEC));
    EXPECT_EQ(write(descriptors_.back().get(), content.data(), content.size()),
              static_cast<ssize_t>(content.size()));
    return {name, descriptors_.back().get()};
  }

  static std::string package(const std::string& content, fwpackage::Kind kind, const std::string& name) {
    fwpackage::Statements statements = statementsFor(name);
    statements.kind = kind;
    return signedFile(content, testSigningKey("ed25519"), statements);
  }

  std::vector<base::FileDescriptor> descriptors_;
};

TEST_F(FleetCheck, KnowsWhatArtifactsAre) {
  EXPECT_EQ(fleet::kindOf({file("a", "hsqs and more")}), Kind::Package);
  EXPECT_EQ(fleet::kindOf({file("a", "other bytes")}), Kind::Usb);
  EXPECT_EQ(fleet::kindOf({file("a", "image"), file("info.json", "{}")}), Kind::Image);
}

TEST_F(FleetCheck, RefusesWhatNothingCanBeUpdatedWith) {
  EXPECT_FALSE(fleet::kindOf({}));
  EXPECT_FALSE(fleet::kindOf({file("info.json", "{}")}));
  EXPECT_FALSE(fleet::kindOf({file("a", "hsqs"), file("b", "hsqs")}));
  EXPECT_EQ(checkArtifacts("tunerfw", {}).sentence,
            "The artifacts of tunerfw are neither one package nor an image with its info.json.");
}

TEST_F(FleetCheck, TakesPackagesThatAreSignedForTheComponent) {
  const std::string packed = package("hsqs and more", fwpackage::Kind::ExtensionPackage, "tunerempfw");
  const std::string encrypted = package("other bytes", fwpackage::Kind::UsbPackage, "tunerfw");

  EXPECT_EQ(checkArtifacts("tunerfw", {file("a", packed)}).sentence, "");
  EXPECT_EQ(checkArtifacts("tunerfw", {file("a", encrypted)}).sentence, "");
}

TEST_F(FleetCheck, RefusesPackagesOfOtherComponentsAndKinds) {
  const std::string packed = package("hsqs and more", fwpackage::Kind::ExtensionPackage, "panelempfw");
  const std::string encrypted = package("other bytes", fwpackage::Kind::UsbPackage, "tunerempfw");
  const std::string disguised = package("hsqs and more", fwpackage::Kind::UsbPackage, "tunerfw");

  EXPECT_THAT(checkArtifacts("tunerfw", {file("a", packed)}).sentence, HasSubstr("for another component"));
  EXPECT_THAT(checkArtifacts("tunerfw", {file("a", encrypted)}).sentence, HasSubstr("for another component"));
  EXPECT_NE(checkArtifacts("tunerfw", {file("a", disguised)}).sentence, "");
}

TEST_F(FleetCheck, RefusesPackagesThatAreNotSignedOrChanged) {
  std::string changed = package("hsqs and more", fwpackage::Kind::ExtensionPackage, "tunerempfw");
  changed[6] ^= 1;

  EXPECT_THAT(checkArtifacts("tunerfw", {file("a", std::string(4096, 'x'))}).sentence,
              HasSubstr("does not end with a signature trailer"));
  EXPECT_THAT(checkArtifacts("tunerfw", {file("a", changed)}).sentence, HasSubstr("it is refused"));
}

}  // namespace
