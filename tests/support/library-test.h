// SPDX-License-Identifier: Apache-2.0
// Fixture for tests of the library at the fixed paths: an empty device, a recording
// platform, scripted modules. The library's singletons live as long as the process,
// so every test runs in a process of its own.
#ifndef LIBRARY_TEST_H
#define LIBRARY_TEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "device-environment.h"
#include "fw-update-symbol.h"
#include "recording-platform.h"
#include "scripted-module.h"

constexpr const char* kControls = "/prd/usr/fwupdate/controls/";
constexpr const char* kBuiltin = "/lib/firmware/ext/";
constexpr const char* kSbox = "/opt/usr/share/sbox/";
constexpr const char* kPackages = "/opt/usr/apps/appbinarymanager/";
constexpr const char* kPackageMounts = "/opt/usr/apps/appbinarymanager/emps/";

// The image checksum, bit by bit and by itself, to hold the library's against.
unsigned int referenceCrc(const std::string& bytes);

// Writes name.bin and "info.json" into directory + name + "/".
void writeImage(const std::string& directory, const std::string& name, const std::string& version = "2.0",
                const std::string& content = "firmware image", unsigned int expectedTime = 30);
// Writes a package image and what would be seen where it is mounted; the recording
// platform mounts nothing.
void writePackage(const std::string& empName, const std::string& firmwareName,
                  const std::string& version = "2.0", const std::string& content = "firmware image",
                  unsigned int expectedTime = 30);
void writeInformation(const std::string& directory, const std::string& name, const std::string& json);

class LibraryTest : public DeviceTest {
 protected:
  void SetUp() override;

  // Installs and binds a module whose package identifier is stem-independent:
  // "abcemp" gives the firmware name "abc".
  FWUpdateSymbol bound(const std::string& stem = "libabc");

  // Whether the module's library is in this process.
  static bool isLoaded(const std::string& stem);
  // Whether this process has any named semaphore open.
  static bool hasSemaphoreOpen();
};

#endif
