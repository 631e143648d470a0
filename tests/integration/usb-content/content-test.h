// SPDX-License-Identifier: Apache-2.0
// Fixture: the library, the real verifier, a scripted module that takes packages, and a
// signed package of it.
#ifndef CONTENT_TEST_H
#define CONTENT_TEST_H

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "library-test.h"
#include "public-keys.h"
#include "signed-package.h"
#include "usb-package.h"

class ContentTest : public LibraryTest {
 protected:
  static constexpr const char* kDrive = "/opt/media/USBDriveA/";
  static constexpr const char* kPackage = "/opt/media/USBDriveA/abc.bin";

  void SetUp() override {
    LibraryTest::SetUp();
    std::filesystem::create_directories(kDrive);
    std::filesystem::create_directories(kControls);
    const fwpack::SigningKey& key = testSigningKey("ed25519");
    writeFile(std::string(fwpackage::kKeyDirectory) + "/maker.pem", publicPem(key));
    image = usb::noise(50000);
    package = usbPackage(usb::key(), "2.0", image, key, "abc");
    symbol = std::make_unique<FWUpdateSymbol>(bound());
    scripted::Module& module = scripted::module("libabc");
    module.checkVersion = [this](const char* version, int* need) {
      versions.emplace_back(version);
      *need = 1;
      return 0;
    };
    module.doUpdateDecryption = [this](const unsigned char* data, int length) {
      images.emplace_back(reinterpret_cast<const char*>(data), static_cast<std::size_t>(length));
      return 0;
    };
  }

  static void installVerifier(const std::string& library) {
    std::filesystem::remove("/usr/lib/libkZAQUser.so");
    std::filesystem::copy_file(library, "/usr/lib/libkZAQUser.so");
  }

  int list() { return symbol->getNeedUpdateList(usb::bytesOf(usb::key()), kDrive); }
  int update() { return symbol->updateUSB(usb::bytesOf(usb::key()), kDrive); }

  // Whether the module got anything but what was signed.
  bool gotOtherBytes() const {
    for (const std::string& got : images) {
      if (got != image) {
        return true;
      }
    }
    for (const std::string& got : versions) {
      if (got != "2.0") {
        return true;
      }
    }
    return false;
  }

  void forget() {
    images.clear();
    versions.clear();
    recording::reset();
  }

  std::string image;
  std::string package;
  std::unique_ptr<FWUpdateSymbol> symbol;
  std::vector<std::string> images;
  std::vector<std::string> versions;
};

#endif
