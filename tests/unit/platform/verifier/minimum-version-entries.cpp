// SPDX-License-Identifier: Apache-2.0
// What the verification library keeps of applied packages, through its entry points, at
// the device's paths.
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>

#include "device-environment.h"
#include "file-descriptor.h"
#include "package-verifier.h"
#include "public-keys.h"
#include "signed-package.h"
#include "temporary-mount.h"

namespace fs = std::filesystem;

namespace {

constexpr char kPackage[] = "/opt/media/USBDriveA/tunerfw.bin";
constexpr char kNoted[] = "/var/lib/fw-update/minimum-versions/tunerfw";

std::string package(const std::string& version, const std::string& minimum) {
  fwpackage::Statements statements = statementsFor("tunerfw");
  statements.version = version;
  statements.minimumVersion = minimum;
  return signedFile("IV and ciphertext", testSigningKey("ed25519"), statements);
}

class AppliedPackage : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    library_ = dlopen(VERIFIER_LIBRARY, RTLD_LAZY);
    ASSERT_NE(library_, nullptr) << dlerror();
    writeFile(std::string(fwpackage::kKeyDirectory) + "/maker.pem", publicPem(testSigningKey("ed25519")));
    allowRollback(0);
  }
  void TearDown() override { dlclose(library_); }

  bool verifies() const { return entry<decltype(&verifyFile)>("verifyFile")(0, kPackage, "UserCaller") != 0; }
  bool verifies(const std::string& content) const {
    writeFile(kPackage, content);
    return verifies();
  }
  void allowRollback(int allow) const {
    entry<decltype(&allowPackageRollback)>("allowPackageRollback")(allow);
  }

  // As the update library does: the content that was read, then, when it passed and the
  // module took it, the note. read: nothing stands for the package's own.
  int apply(const std::string& content, const std::string* read = nullptr) const {
    writeFile(kPackage, content);
    const base::FileDescriptor file(open(kPackage, O_RDONLY | O_CLOEXEC));
    auto* const check = entry<decltype(&beginContentCheck)>("beginContentCheck")(kPackage, file.get());
    const std::string& bytes = read == nullptr ? content : *read;
    entry<decltype(&addCheckedContent)>("addCheckedContent")(
        check, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    passed = entry<decltype(&endContentCheck)>("endContentCheck")(check) != 0;
    const int noted = entry<decltype(&noteAppliedPackage)>("noteAppliedPackage")(check);
    entry<decltype(&releaseContentCheck)>("releaseContentCheck")(check);
    return noted;
  }

  mutable bool passed = false;

 private:
  template <typename Function>
  Function entry(const char* name) const {
    return reinterpret_cast<Function>(dlsym(library_, name));
  }
  void* library_ = nullptr;
};

TEST_F(AppliedPackage, RaisesTheMinimumVersion) {
  ASSERT_EQ(apply(package("2.0.0", "1.5.0")), 0);
  EXPECT_TRUE(passed);
  EXPECT_EQ(readFile(kNoted), "1.5.0\n");

  EXPECT_FALSE(verifies(package("1.4.9", "")));
  EXPECT_TRUE(verifies(package("1.5.0", "")));
}

TEST_F(AppliedPackage, ThatStatesNoMinimumLeavesItAsItIs) {
  ASSERT_EQ(apply(package("2.0.0", "1.5.0")), 0);
  ASSERT_EQ(apply(package("3.0.0", "")), 0);

  EXPECT_EQ(readFile(kNoted), "1.5.0\n");
}

TEST_F(AppliedPackage, ThatIsOlderNeedsTheOperatorsWord) {
  ASSERT_EQ(apply(package("2.0.0", "2.0.0")), 0);
  const std::string old = package("1.0.0", "1.0.0");
  ASSERT_FALSE(verifies(old));
  EXPECT_EQ(apply(old), -EINVAL);
  EXPECT_FALSE(passed);

  allowRollback(1);
  EXPECT_TRUE(verifies());
  EXPECT_EQ(apply(old), 0);
  EXPECT_TRUE(passed);
  EXPECT_EQ(readFile(kNoted), "2.0.0\n");

  allowRollback(0);
  EXPECT_FALSE(verifies());
}

TEST_F(AppliedPackage, ThatDidNotPassRaisesNothing) {
  const std::string whole = package("2.0.0", "1.5.0");
  std::string other = whole;
  other[0] = '!';

  EXPECT_EQ(apply(whole, &other), -EINVAL);

  EXPECT_FALSE(passed);
  EXPECT_FALSE(exists(kNoted));
}

TEST_F(AppliedPackage, SaysWhenItCannotBeNoted) {
  writeFile(kNoted, "damaged");
  allowRollback(1);
  EXPECT_EQ(apply(package("2.0.0", "1.5.0")), -EBADMSG);

  fs::remove_all("/var/lib/fw-update/minimum-versions");
  const TemporaryMount readOnly = TemporaryMount::memory("/var/lib/fw-update");
  ASSERT_EQ(mount(nullptr, "/var/lib/fw-update", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(apply(package("2.0.0", "1.5.0")), -EROFS);
}

}  // namespace
