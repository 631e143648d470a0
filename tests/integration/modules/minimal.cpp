// SPDX-License-Identifier: Apache-2.0
// The module in one file.
#include <cerrno>

#include "module-test.h"

namespace {

class MinimalModule : public ModuleTest {
 protected:
  const LoadedModule minimal_{FW_EXAMPLES_DIRECTORY "/libminimal.so"};
  const std::string image_ = makeImage(5000, 1);
};

TEST_F(MinimalModule, HasTheRequiredEntryPoints) {
  for (const char* name : {"setContext", "getEMPID", "getActiveVersion", "checkVersion", "doUpdate"}) {
    EXPECT_NE(minimal_.address(name), nullptr) << name;
  }
  EXPECT_EQ(minimal_.empId(), "minimalempfw");
}

TEST_F(MinimalModule, UpdatesItsComponent) {
  EXPECT_EQ(minimal_.activeVersion(), "0.0.0");
  EXPECT_EQ(minimal_.need("2.0"), 1);

  EXPECT_EQ(updateFrom(minimal_, "2.0", image_), 0);

  EXPECT_EQ(minimal_.activeVersion(), "2.0");
  EXPECT_EQ(minimal_.need("2.0"), 0);
  EXPECT_EQ(minimal_.need("1.9"), 0);
  EXPECT_EQ(minimal_.need("2.10"), 1);
  EXPECT_EQ(minimal_.need("two"), -EINVAL);
  EXPECT_EQ(readFile(std::string(kComponents) + "minimalfw.firmware"), "2.0\n" + image_);
}

TEST_F(MinimalModule, WritesTheVersionStatedBesideTheImage) {
  writeFile(kImagePath, image_);
  writeFile(kInformationPath, R"({"version": "2.0"})");
  minimal_.need("2.0");
  minimal_.need("2.5");

  EXPECT_EQ(minimal_.find<decltype(doUpdate)>("doUpdate")(kImagePath, crcOf(image_)), 0);
  EXPECT_EQ(minimal_.activeVersion(), "2.0");
}

TEST_F(MinimalModule, KeepsTheOldFirmwareAfterAFailure) {
  ASSERT_EQ(updateFrom(minimal_, "2.0", image_), 0);

  EXPECT_EQ(minimal_.update("3.0", "/no/image", 0), -ENOENT);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(minimal_.update("3.0", kImagePath, crcOf(image_) + 1), -EBADMSG);
  EXPECT_LT(minimal_.update("3.0", "/lib/firmware", 0), 0);

  EXPECT_EQ(minimal_.activeVersion(), "2.0");
  EXPECT_FALSE(exists(std::string(kComponents) + "minimalfw.firmware.new"));
}

}  // namespace
