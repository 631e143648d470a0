// SPDX-License-Identifier: Apache-2.0
// Which file the software version comes from, with /etc and the system's
// description of the test's own.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "device-environment.h"
#include "system-info.h"
#include "temporary-mount.h"

namespace {

class SystemInfoFiles : public DeviceTest {
 protected:
  // The version, or "error N".
  static std::string version() {
    char* value = nullptr;
    const int status = system_info_get_value_string(SYSTEM_INFO_SOFTWARE_VERSION, &value);
    if (status != 0) {
      EXPECT_EQ(value, nullptr);
      return "error " + std::to_string(-status);
    }
    const std::string text = value;
    std::free(value);
    return text;
  }

  void SetUp() override {
    DeviceTest::SetUp();
    etc_.emplace(TemporaryMount::memory("/etc"));
    std::filesystem::remove(kFallback);
  }

  static constexpr char kFile[] = "/etc/os-release";
  static constexpr char kFallback[] = "/usr/lib/os-release";

 private:
  std::optional<TemporaryMount> etc_;
};

TEST_F(SystemInfoFiles, PrefersTheFileInEtc) {
  writeFile(kFile, "ID=etc\nVERSION_ID=1\n");
  writeFile(kFallback, "ID=lib\nVERSION_ID=2\n");

  EXPECT_EQ(version(), "etc-1");
}

TEST_F(SystemInfoFiles, FallsBackToTheFileInUsrLib) {
  writeFile(kFallback, "ID=lib\nVERSION_ID=2\nBUILD_ID=77\n");

  EXPECT_EQ(version(), "lib-2-77");
}

TEST_F(SystemInfoFiles, FallsBackWhenTheFileInEtcIsADirectory) {
  std::filesystem::create_directory(kFile);
  writeFile(kFallback, "ID=lib\nVERSION_ID=2\n");

  EXPECT_EQ(version(), "lib-2");
}

TEST_F(SystemInfoFiles, FailsWithoutAnyFile) {
  EXPECT_EQ(version(), "error " + std::to_string(ENOENT));
}

TEST_F(SystemInfoFiles, RefusesAFileThatIsFarTooLarge) {
  writeFile(kFallback, std::string(64 * 1024 + 1, '#'));

  EXPECT_EQ(version(), "error " + std::to_string(EFBIG));
}

TEST_F(SystemInfoFiles, FallsBackWhenTheFileInEtcIsFarTooLarge) {
  writeFile(kFile, std::string(64 * 1024 + 1, '#'));
  writeFile(kFallback, "ID=lib\nVERSION_ID=2\n");

  EXPECT_EQ(version(), "lib-2");
}

TEST_F(SystemInfoFiles, TakesAFileThatIsJustNotTooLarge) {
  const std::string text = "ID=tv\nVERSION_ID=1\n";
  writeFile(kFile, text + std::string(64 * 1024 - text.size(), '#'));

  EXPECT_EQ(version(), "tv-1");
}

TEST_F(SystemInfoFiles, ReadsTheFileAgainEachTime) {
  writeFile(kFile, "ID=tv\nVERSION_ID=1\n");
  ASSERT_EQ(version(), "tv-1");
  writeFile(kFile, "ID=tv\nVERSION_ID=2\n");

  EXPECT_EQ(version(), "tv-2");
}

}  // namespace
