// SPDX-License-Identifier: Apache-2.0
#include "library-test.h"

#include <dlfcn.h>

unsigned int referenceCrc(const std::string& bytes) {
  unsigned int crc = 0;
  for (const char c : bytes) {
    crc ^= static_cast<unsigned int>(static_cast<unsigned char>(c)) << 24;
    for (int bit = 0; bit < 8; ++bit) {
      const bool carry = (crc & 0x80000000U) != 0;
      crc = (crc << 1) ^ (carry ? 0x01B23CA3U : 0U);
    }
  }
  return crc;
}

namespace {

std::string information(const std::string& version, const std::string& content, unsigned int expectedTime) {
  return "{\"version\": \"" + version + "\", \"crc\": " + std::to_string(referenceCrc(content)) +
         ", \"expected_time\": " + std::to_string(expectedTime) + "}";
}

}  // namespace

void writeImage(const std::string& directory, const std::string& name, const std::string& version,
                const std::string& content, unsigned int expectedTime) {
  DeviceTest::writeFile(directory + name + "/" + name + ".bin", content);
  writeInformation(directory, name, information(version, content, expectedTime));
}

void writePackage(const std::string& empName, const std::string& firmwareName, const std::string& version,
                  const std::string& content, unsigned int expectedTime) {
  DeviceTest::writeFile(kPackages + empName + ".img", "package image");
  DeviceTest::writeFile(kPackageMounts + empName + "/" + firmwareName + ".bin", content);
  writeInformation(kPackageMounts, empName, information(version, content, expectedTime));
}

void writeInformation(const std::string& directory, const std::string& name, const std::string& json) {
  DeviceTest::writeFile(directory + name + "/info.json", json);
}

void LibraryTest::SetUp() {
  DeviceTest::SetUp();
  recording::reset();
  scripted::resetModules();
}

FWUpdateSymbol LibraryTest::bound(const std::string& stem) {
  scripted::installModule(stem);
  FWUpdateSymbol symbol(stem);
  symbol.loadSymbol(stem);
  recording::reset();
  return symbol;
}

bool LibraryTest::isLoaded(const std::string& stem) {
  void* const handle = dlopen((kControls + stem + ".so").c_str(), RTLD_NOW | RTLD_NOLOAD);
  if (handle != nullptr) {
    dlclose(handle);
  }
  return handle != nullptr;
}

bool LibraryTest::hasSemaphoreOpen() {
  return readFile("/proc/self/maps").find(" /dev/shm/sem.") != std::string::npos;
}
