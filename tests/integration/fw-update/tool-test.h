// SPDX-License-Identifier: Apache-2.0
// What the tests of the command share: modules and images on the device, and runs
// of the command.
#ifndef TESTS_INTEGRATION_FW_UPDATE_TOOL_TEST_H
#define TESTS_INTEGRATION_FW_UPDATE_TOOL_TEST_H

#include <gmock/gmock.h>
#include <json/json.h>

#include <string>
#include <vector>

#include "device-environment.h"
#include "running-tool.h"

constexpr const char* kControls = "/prd/usr/fwupdate/controls/";
constexpr const char* kFirmware = "/lib/firmware/ext/";
constexpr const char* kLock = "/dev/shm/sem.SEM_UPDATE_CONTROL";

struct Ended {
  int exitCode;
  std::string out;
  std::string err;
};

class ToolTest : public DeviceTest {
 protected:
  // A built module, such as "libtuner".
  static void installModule(const std::string& name);
  static void installOddModule(const std::string& variant = "complete");

  // An image with its description; the expected time is in seconds. Installed below
  // directory + firmwareName.
  static void installImage(const std::string& firmwareName, const std::string& version = "2.0.0",
                           unsigned int expectedTime = 60, const std::string& directory = kFirmware);

  // Lines of the component's description file, such as "stall_at_percent = 40".
  static void describeComponent(const std::string& firmwareName, const std::string& lines);

  static Ended run(const std::vector<std::string>& arguments, const Launch& launch = {});

  // With --json: the one document that standard output must hold, whose exit code
  // must be the command's.
  static Json::Value document(std::vector<std::string> arguments, const Launch& launch = {});

  // Each line must be one JSON object.
  static std::vector<Json::Value> lines(const std::string& text);
};

#endif
