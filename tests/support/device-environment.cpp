// SPDX-License-Identifier: Apache-2.0
#include "device-environment.h"

#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "device-layout.h"
#include "device-namespace.h"

namespace fs = std::filesystem;

namespace {

constexpr int kSkipped = 77;  // as the tests' SKIP_RETURN_CODE says

__user_cap_header_struct callingThread() {
  return {_LINUX_CAPABILITY_VERSION_3, 0};
}

void setCapabilities(const __user_cap_data_struct* capabilities) {
  auto header = callingThread();
  if (syscall(SYS_capset, &header, capabilities) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot change this thread's capabilities");
  }
}

// Which calls enter a device is too new for some tools that tests run under: $FW_TEST_TOOL, a
// command, is started once there is a device, and goes on with this program.
constexpr char kTool[] = "FW_TEST_TOOL";
constexpr char kOnDevice[] = "FW_TEST_ON_DEVICE";

void startTool(const char* tool, char** argv) {
  const std::string command = std::string("exec ") + tool + " \"$@\"";
  std::vector<std::string> arguments = {"sh", "-c", command, "sh", fs::read_symlink("/proc/self/exe")};
  for (char** argument = argv + 1; *argument != nullptr; ++argument) {
    arguments.emplace_back(*argument);
  }
  std::vector<char*> pointers;
  for (std::string& argument : arguments) {
    pointers.push_back(argument.data());
  }
  pointers.push_back(nullptr);
  setenv(kOnDevice, sandbox::deviceIdentity().c_str(), 1);
  unsetenv(kTool);
  execv("/bin/sh", pointers.data());
  throw std::system_error(errno, std::generic_category(), "cannot start the tool");
}

void enterDevice(char** argv) {
  const std::string tool = std::getenv(kTool) != nullptr ? std::getenv(kTool) : "";
  sandbox::enterDevice({"", {TEST_SOURCE_TREE}, {}, {TEST_BINARY_TREE}});
  if (!tool.empty()) {
    startTool(tool.c_str(), argv);
  }
}

}  // namespace

void DeviceTest::writeFile(const std::string& path, const std::string& content) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (!file.write(content.data(), static_cast<std::streamsize>(content.size())).flush()) {
    throw std::runtime_error("cannot write " + path);
  }
}

std::string DeviceTest::readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    throw std::runtime_error("cannot read " + path);
  }
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

bool DeviceTest::exists(const std::string& path) {
  return fs::exists(fs::symlink_status(path));
}

void DeviceTest::SetUp() {
  sandbox::clearDevice();
}

WithoutFileOverride::WithoutFileOverride() {
  auto header = callingThread();
  if (syscall(SYS_capget, &header, previous_) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot read this thread's capabilities");
  }
  __user_cap_data_struct reduced[_LINUX_CAPABILITY_U32S_3] = {previous_[0], previous_[1]};
  reduced[0].effective &= ~((1U << CAP_DAC_OVERRIDE) | (1U << CAP_DAC_READ_SEARCH));
  setCapabilities(reduced);
}

WithoutFileOverride::~WithoutFileOverride() {
  setCapabilities(previous_);
}

int main(int argc, char** argv) {
  // A shell's background job ignores what ends the programs that tests start and interrupt.
  for (const int number : {SIGHUP, SIGINT, SIGQUIT}) {
    std::signal(number, SIG_DFL);
  }
  std::vector<char*> given(argv, argv + argc + 1);
  ::testing::InitGoogleMock(&argc, argv);
  if (::testing::GTEST_FLAG(list_tests)) {
    return RUN_ALL_TESTS();  // lists only, so that a build host without namespaces can
  }
  try {
    const char* const device = std::getenv(kOnDevice);
    if (device == nullptr || !sandbox::goOnInDevice(device)) {
      enterDevice(given.data());
    }
  } catch (const std::exception& refused) {
    std::fprintf(stderr, "skipped, no device: %s\n", refused.what());
    return kSkipped;
  }
  return RUN_ALL_TESTS();
}
