// SPDX-License-Identifier: Apache-2.0
#include "fw-module-test.h"

#include <filesystem>
#include <sstream>

namespace fs = std::filesystem;

void FwModuleTest::SetUp() {
  DeviceTest::SetUp();
  fs::create_directories(kWork);
}

ProgramResult FwModuleTest::run(const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {FW_MODULE_PROGRAM};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return runProgram({command, kWork, 0, {}});
}

Json::Value FwModuleTest::document(std::vector<std::string> arguments) {
  arguments.emplace_back("--json");
  const ProgramResult result = run(arguments);
  Json::Value document;
  std::istringstream(result.output) >> document;
  EXPECT_EQ(document["exitCode"].asInt(), result.exitCode) << result.output << result.error;
  return document;
}

std::string FwModuleTest::copyOf(const std::string& module, const std::string& name) {
  for (const std::string directory :
       {FAULTY_MODULES_DIRECTORY, FW_MODULES_DIRECTORY, FW_EXAMPLES_DIRECTORY}) {
    if (fs::exists(directory + "/" + module)) {
      fs::copy_file(directory + "/" + module, kWork + name);
    }
  }
  return kWork + name;
}

std::set<std::string> findingsOf(const Json::Value& document) {
  std::set<std::string> checks;
  for (const Json::Value& finding : document["findings"]) {
    checks.insert(finding["check"].asString());
  }
  return checks;
}

static std::string ofCheck(const Json::Value& document, const std::string& check, const char* member) {
  for (const Json::Value& one : document["checks"]) {
    if (one["id"] == check) {
      return one[member].asString();
    }
  }
  return "no such check";
}

std::string resultOf(const Json::Value& document, const std::string& check) {
  return ofCheck(document, check, "result");
}

std::string reasonOf(const Json::Value& document, const std::string& check) {
  return ofCheck(document, check, "reason");
}
