// SPDX-License-Identifier: Apache-2.0
// The platform that a maker begins with.
#include <gmock/gmock.h>

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "app-binary-manager.h"
#include "device-environment.h"
#include "device-power.h"
#include "dlog.h"
#include "log-daemon.h"
#include "lwipc.h"
#include "privileged-service.h"
#include "system-info.h"
#include "trace-storage.h"

namespace {

using ::testing::ElementsAre;

class SkeletonLog : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    daemon_.emplace();
  }

  std::vector<std::string> messages() const { return daemon_->messages(); }

 private:
  std::optional<LogDaemon> daemon_;
};

TEST_F(SkeletonLog, WritesTheTextOfErrnoAndKeepsIt) {
  const std::string format = "%s: %m";  // the compiler does not know %m
  errno = ENOENT;
  const int length = __dlog_print(2, DLOG_ERROR_PRIORITY, "FWUPDATE", format.c_str(), "file");
  const int error = errno;

  EXPECT_EQ(length, 31);
  EXPECT_EQ(error, ENOENT);
  EXPECT_THAT(messages(), ElementsAre("<11>FWUPDATE: file: No such file or directory"));
}

TEST_F(SkeletonLog, SaysThatAnEmptyMessageHasNoLength) {
  EXPECT_EQ(__dlog_print(2, DLOG_INFO_PRIORITY, nullptr, "%s", ""), 0);
  EXPECT_THAT(messages(), ElementsAre("<14>(null): "));
}

TEST_F(SkeletonLog, GivesEachPriorityItsSyslogPriority) {
  const std::pair<int, const char*> expected[] = {
      {DLOG_DEBUG_PRIORITY - 1, "<15>"}, {DLOG_DEBUG_PRIORITY, "<15>"}, {DLOG_INFO_PRIORITY, "<14>"},
      {DLOG_WARN_PRIORITY, "<12>"},      {DLOG_ERROR_PRIORITY, "<11>"}, {DLOG_ERROR_PRIORITY + 1, "<10>"}};
  for (const auto& [priority, prefix] : expected) {
    EXPECT_EQ(__dlog_print(2, priority, "TAG", "text"), 4);
    EXPECT_THAT(messages(), ElementsAre(std::string(prefix) + "TAG: text"));
  }
}

TEST_F(SkeletonLog, SaysThatAMessageCannotBeMade) {
  const wchar_t unknown[] = {0x7fffffff, 0};  // has no bytes in any locale

  EXPECT_EQ(__dlog_print(2, DLOG_INFO_PRIORITY, "TAG", "%ls", unknown), -ENOMEM);
  EXPECT_THAT(messages(), ElementsAre());
}

TEST(SkeletonPlatform, KnowsItsSoftwareVersionAlone) {
  char* value = nullptr;
  ASSERT_EQ(system_info_get_value_string(SYSTEM_INFO_SOFTWARE_VERSION, &value), 0);
  EXPECT_STREQ(value, "SKELETON-1.0");
  std::free(value);

  char* untouched = nullptr;
  EXPECT_EQ(system_info_get_value_string(SYSTEM_INFO_SOFTWARE_VERSION + 1, &untouched), -EINVAL);
  EXPECT_EQ(untouched, nullptr);
  EXPECT_EQ(system_info_get_value_string(SYSTEM_INFO_SOFTWARE_VERSION, nullptr), -EINVAL);
}

TEST(SkeletonPlatform, RefusesWhatAMakerHasToWrite) {
  int result = 7;
  EXPECT_EQ(device_power_lock_state(1, 1000), -ENOSYS);
  EXPECT_EQ(device_power_unlock_state(1), -ENOENT);
  EXPECT_EQ(LwipcEventDone("/event"), -ENOSYS);
  EXPECT_EQ(LwipcEventWait("/event", 0), -ENOSYS);
  EXPECT_EQ(PS_Mount("-o loop a b", 12, 0, &result), -ENOSYS);
  EXPECT_EQ(PS_Mknod("-m 0660 -Z * /dev/loop1  b 7 1", 31, 0, &result), -ENOSYS);
  EXPECT_EQ(PS_Umount("/mnt", 4, 0, &result), -ENOSYS);
  EXPECT_EQ(result, 7);
  EXPECT_FALSE(appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, "org.example.app"));
}

TEST(SkeletonPlatform, TracesNothingAndNumbersPlacesFromOne) {
  TraceStorage::Manager& manager = TraceStorage::Manager::Instance();
  TraceStorage::Storage& storage = manager.GetStorage();

  EXPECT_EQ(TraceStorage::enabled, 0);
  EXPECT_EQ(storage.ThreadHandle(), nullptr);
  EXPECT_EQ(storage.PrepareCallBuffer(nullptr, 16, 1, 1), nullptr);
  EXPECT_EQ(&TraceStorage::Manager::Instance(), &manager);
  EXPECT_EQ(&manager.GetStorage(), &storage);
  EXPECT_EQ(manager.NewLocationId(), 1U);
  EXPECT_EQ(manager.NewLocationId(), 2U);
}

}  // namespace
