// SPDX-License-Identifier: Apache-2.0
// What the tests of the command share: a working directory on a device, and runs of the
// command in it.
#ifndef TESTS_INTEGRATION_FW_MODULE_TEST_H
#define TESTS_INTEGRATION_FW_MODULE_TEST_H

#include <gmock/gmock.h>
#include <json/json.h>

#include <set>
#include <string>
#include <vector>

#include "device-environment.h"
#include "running-program.h"

inline constexpr char kWork[] = "/tmp/author/";

class FwModuleTest : public DeviceTest {
 protected:
  void SetUp() override;

  static ProgramResult run(const std::vector<std::string>& arguments);
  // The one JSON document that the command prints.
  static Json::Value document(std::vector<std::string> arguments);

  // A faulty module or one that ships, under that name in the working directory.
  static std::string copyOf(const std::string& module, const std::string& name);
};

// The ids of the checks that found something.
std::set<std::string> findingsOf(const Json::Value& document);

// The result of one check: "passed", "error", "warning" or "not-checked".
std::string resultOf(const Json::Value& document, const std::string& check);

// Why it was not made; empty when it was.
std::string reasonOf(const Json::Value& document, const std::string& check);

#endif
