// SPDX-License-Identifier: Apache-2.0
// Runs built modules on a device of the test's own. A LoadedModule owns one
// loaded library and calls its entry points as the update library does; a Child
// owns a process. For the thread that runs the test.
#ifndef TESTS_INTEGRATION_MODULES_MODULE_TEST_H
#define TESTS_INTEGRATION_MODULES_MODULE_TEST_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "device-environment.h"
#include "fw-update-module.h"

constexpr const char* kComponents = "/var/lib/fw-components/";
constexpr const char* kImagePath = "/lib/firmware/ext/image.bin";
constexpr const char* kInformationPath = "/lib/firmware/ext/info.json";

std::string modulePath(const std::string& library);  // "libtuner.so"

class LoadedModule {
 public:
  explicit LoadedModule(const std::string& path);

  template <typename Function>
  Function* find(const char* entryPoint) const {
    return reinterpret_cast<Function*>(address(entryPoint));
  }
  void* address(const char* entryPoint) const;

  // Closes the library; a module loaded afterwards knows nothing of this one.
  void unload() { library_.reset(); }

  int setContext(const char* libName, CallerTypes caller, char* data) const;
  std::string empId() const;
  std::string activeVersion() const;  // "error <result>" on a failure
  int need(const std::string& version) const;
  unsigned int progress() const;
  int expectedTime() const;

  // States the version in kInformationPath, calls checkVersion, then doUpdate or
  // doUpdate_decryption; errno is the module's.
  int update(const std::string& version, const std::string& path, unsigned long crc) const;
  int updateFromMemory(const std::string& version, const std::string& image) const;

 private:
  struct Close {
    void operator()(void* library) const;
  };
  std::unique_ptr<void, Close> library_;
};

// A process that runs body and exits with its result. Killed when it still runs
// at the end of its life.
class Child {
 public:
  explicit Child(const std::function<int()>& body);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t id() const { return id_; }
  int wait();  // the exit code, or minus the signal
  void kill();
  void forget() { id_ = 0; }  // it has ended and was waited for

 private:
  pid_t id_;
};

class ModuleTest : public DeviceTest {
 protected:
  static std::string makeImage(std::size_t size, unsigned int seed);
  static std::uint32_t crcOf(const std::string& content);

  // Writes the image to kImagePath and lets the module update from it.
  static int updateFrom(const LoadedModule& module, const std::string& version, const std::string& image);

  // The content of a component's flash, which must be whole.
  static std::string flashContent(const std::string& firmwareName);

  static void describeComponent(const std::string& firmwareName, const std::string& text);

  // As if the component had never been updated.
  static void forgetProgress(const std::string& firmwareName);

  // Blocks until the component's progress file says at least percent.
  static void waitForProgress(const LoadedModule& module, unsigned int percent);

  static std::vector<std::string> journal();
  static std::string lastJournalLine();
};

#endif
