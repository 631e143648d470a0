// SPDX-License-Identifier: Apache-2.0
#include "system-info.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "os-release.h"

namespace {

TEST(SystemInfo, GivesTheSoftwareVersionOfThisSystem) {
  std::ifstream file("/etc/os-release");
  const std::string osRelease(std::istreambuf_iterator<char>(file), {});
  ASSERT_FALSE(osRelease.empty());
  char* value = nullptr;

  ASSERT_EQ(system_info_get_value_string(SYSTEM_INFO_SOFTWARE_VERSION, &value), 0);

  ASSERT_NE(value, nullptr);
  EXPECT_EQ(std::string(value), fwplatform::softwareVersionText(fwplatform::parseOsRelease(osRelease)));
  std::free(value);
}

TEST(SystemInfo, RefusesOtherKeysAndLeavesTheValueAlone) {
  for (const int key : {-1, 0, 1, 127, 129}) {
    char untouched = 'u';
    char* value = &untouched;

    EXPECT_EQ(system_info_get_value_string(key, &value), -ENOTSUP) << key;

    EXPECT_EQ(value, &untouched);
  }
}

TEST(SystemInfo, RefusesANullValuePointer) {
  EXPECT_EQ(system_info_get_value_string(SYSTEM_INFO_SOFTWARE_VERSION, nullptr), -EINVAL);
}

}  // namespace
