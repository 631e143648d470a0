// SPDX-License-Identifier: Apache-2.0
// The module that runs its own procedure.
#include <cerrno>
#include <filesystem>

#include "module-test.h"

namespace {

constexpr const char* kRemoteImage = "/lib/firmware/ext/remotefw/remotefw.bin";
constexpr const char* kRemoteInformation = "/lib/firmware/ext/remotefw/info.json";

class RemoteModule : public ModuleTest {
 protected:
  void offer(const std::string& version, const std::string& image) {
    writeFile(kRemoteImage, image);
    writeFile(kRemoteInformation,
              "{\"version\": \"" + version + "\", \"crc\": " + std::to_string(crcOf(image)) + "}");
  }

  int run() const {
    errno = 0;
    return remote_.find<decltype(doUpdate)>("doUpdate")("libEXT-remote", 0);
  }

  const LoadedModule remote_{modulePath("libEXT-remote.so")};
  const std::string image_ = makeImage(200000, 1);
};

TEST_F(RemoteModule, TakesItsImageFromTheFirmwareDirectory) {
  offer("1.2", image_);

  EXPECT_EQ(run(), 0);
  EXPECT_EQ(remote_.activeVersion(), "1.2");
  EXPECT_TRUE(flashContent("remotefw") == image_);
  EXPECT_EQ(remote_.progress(), 100u);
}

TEST_F(RemoteModule, HasNothingToDoForAnImageThatIsNotNewer) {
  offer("1.2", image_);
  ASSERT_EQ(run(), 0);
  const auto written = std::filesystem::last_write_time(std::string(kComponents) + "remotefw.flash");

  for (const char* version : {"1.2", "1.2.0", "1.1.9"}) {
    offer(version, makeImage(1000, 2));

    EXPECT_EQ(run(), 0) << version;
    EXPECT_EQ(std::filesystem::last_write_time(std::string(kComponents) + "remotefw.flash"), written);
    EXPECT_EQ(remote_.activeVersion(), "1.2");
  }
}

TEST_F(RemoteModule, FailsWithoutAnImageOrItsInformation) {
  EXPECT_EQ(run(), -ENOENT);
  EXPECT_EQ(errno, ENOENT);

  offer("1.2", image_);
  std::filesystem::remove(kRemoteImage);
  EXPECT_EQ(run(), -ENOENT);

  EXPECT_EQ(remote_.activeVersion(), "0.0.0");
}

TEST_F(RemoteModule, FailsWithACorruptImage) {
  offer("1.2", image_);
  writeFile(kRemoteImage, image_.substr(1));

  EXPECT_EQ(run(), -EBADMSG);
  EXPECT_EQ(errno, EBADMSG);
  EXPECT_EQ(remote_.activeVersion(), "0.0.0");
}

TEST_F(RemoteModule, FailsWithInformationThatSaysTooLittle) {
  for (const char* text :
       {"", "{", "[]", "7", "{}", "{\"version\": \"1.2\"}", "{\"crc\": 5}", "{\"version\": 1.2, \"crc\": 5}",
        "{\"version\": \"1.2\", \"crc\": \"5\"}", "{\"version\": \"1.2\", \"crc\": -5}",
        "{\"version\": \"1.2\", \"crc\": 4294967296}"}) {
    offer("1.2", image_);
    writeFile(kRemoteInformation, text);

    EXPECT_EQ(run(), -EBADMSG) << text;
  }
  offer("new", image_);
  EXPECT_EQ(run(), -EINVAL);
  offer("1.2", image_);
  writeFile(kRemoteInformation, std::string(5000, '['));
  EXPECT_LT(run(), 0);
}

TEST_F(RemoteModule, FailsLikeOtherComponentsWhenItsHardwareDoes) {
  offer("1.2", image_);
  describeComponent("remotefw", "fail_at_percent = 70");

  EXPECT_EQ(run(), -EIO);
  EXPECT_EQ(remote_.activeVersion(), "0.0.0");
}

}  // namespace
