// SPDX-License-Identifier: Apache-2.0
// Tests at the device's fixed paths. Linking test-device gives a test program its
// main, which runs all tests inside one in-memory device; the build tree and the
// source tree stay visible. A program that cannot enter says why and exits with
// 77, "skipped". Not for use by several threads at once.
#ifndef TESTS_SUPPORT_DEVICE_ENVIRONMENT_H
#define TESTS_SUPPORT_DEVICE_ENVIRONMENT_H

#include <gtest/gtest.h>
#include <linux/capability.h>

#include <string>

// Starts each test with an empty device.
class DeviceTest : public ::testing::Test {
 public:
  // Creates the file's directory as needed and replaces the file.
  static void writeFile(const std::string& path, const std::string& content);
  // The whole content. Throws std::runtime_error when the file cannot be read.
  static std::string readFile(const std::string& path);
  // Whether path is there, a link that leads nowhere included.
  static bool exists(const std::string& path);

 protected:
  void SetUp() override;
};

// Lets file modes bind the calling thread, which is root in the device: while one
// of these lives, a file of mode 0 cannot be opened.
class WithoutFileOverride {
 public:
  WithoutFileOverride();
  WithoutFileOverride(const WithoutFileOverride&) = delete;
  WithoutFileOverride& operator=(const WithoutFileOverride&) = delete;
  ~WithoutFileOverride();

 private:
  __user_cap_data_struct previous_[_LINUX_CAPABILITY_U32S_3];
};

#endif
