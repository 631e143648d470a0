// SPDX-License-Identifier: Apache-2.0
// What the tests of the command share: a working directory on a device, with an
// image and keys, and runs of the command in it.
#ifndef TESTS_INTEGRATION_FW_PACK_TEST_H
#define TESTS_INTEGRATION_FW_PACK_TEST_H

#include <gmock/gmock.h>
#include <json/json.h>

#include <string>
#include <vector>

#include "device-environment.h"
#include "running-program.h"
#include "signed-package.h"

inline constexpr char kWork[] = "/tmp/maker/";

class PackTest : public DeviceTest {
 protected:
  void SetUp() override;

  static ProgramResult run(const std::vector<std::string>& arguments);
  // The one JSON document that the command prints; it must end with exitCode.
  static Json::Value document(std::vector<std::string> arguments, int exitCode = 0);

  static std::string read(const std::string& name) { return readFile(kWork + name); }
  static void write(const std::string& name, const std::string& content, int mode = 0644);
  static std::vector<std::string> filesInWork();

  // "image.bin" is there; these two are written when asked for.
  static std::string image();
  static void writeKeys(int mode = 0600);  // package.key, maker.key, maker.pem
  static std::vector<std::string> usbCommand(const std::string& output = "tunerfw.bin");
};

#endif
