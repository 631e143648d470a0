// SPDX-License-Identifier: Apache-2.0
#include "host-mounts.h"

#include <gmock/gmock.h>
#include <sys/syscall.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>

#include "child-process.h"
#include "device-environment.h"
#include "refused-calls.h"

namespace {

using ::testing::HasSubstr;

class HostMounts : public DeviceTest {};

// What show says when it fails with this errno value.
template <typename Show>
std::string refusal(int error, Show show) {
  try {
    show();
  } catch (const std::system_error& refused) {
    EXPECT_EQ(refused.code().value(), error);
    return refused.what();
  }
  return "it was shown";
}

TEST_F(HostMounts, SayWhatCannotBeShown) {
  std::filesystem::create_directory("/tmp/there");

  EXPECT_THAT(refusal(ENOENT, [] { sandbox::showReadOnly("/tmp/missing", "/tmp/there"); }),
              HasSubstr("cannot show /tmp/missing in the device"));
  EXPECT_THAT(refusal(ENOENT, [] { sandbox::showReadOnly("/tmp/there", "/tmp/missing"); }),
              HasSubstr("cannot show /tmp/there in the device at /tmp/missing"));
  EXPECT_THAT(refusal(ENOENT, [] { sandbox::showWritable("/tmp/there", "/tmp/missing"); }),
              HasSubstr("cannot put /tmp/missing in place in the device"));
}

TEST_F(HostMounts, ShowNothingThatCannotBeProtected) {
  std::filesystem::create_directory("/tmp/source");
  std::filesystem::create_directory("/tmp/target");
  writeFile("/tmp/source/file", "text");

  EXPECT_EQ(
      runInChild([] {
        EXPECT_TRUE(refuseCalls({SYS_mount_setattr}, ENOSYS));
        EXPECT_THAT(
            refusal(ENOSYS, [] { sandbox::showReadOnly("/tmp/source", "/tmp/target"); }),
            HasSubstr("cannot protect /tmp/source from programs on the device, which needs Linux 5.12"));
        return HasFailure() ? 1 : 0;
      }),
      0);

  EXPECT_FALSE(exists("/tmp/target/file"));
}

}  // namespace
