// SPDX-License-Identifier: Apache-2.0
#include "module-test.h"

#include <dlfcn.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <system_error>

#include "flash-file.h"

std::string modulePath(const std::string& library) {
  return FW_MODULES_DIRECTORY "/" + library;
}

LoadedModule::LoadedModule(const std::string& path) : library_(::dlopen(path.c_str(), RTLD_NOW)) {
  if (!library_) {
    throw std::runtime_error(::dlerror());
  }
}

void LoadedModule::Close::operator()(void* library) const {
  ::dlclose(library);
}

void* LoadedModule::address(const char* entryPoint) const {
  return ::dlsym(library_.get(), entryPoint);
}

int LoadedModule::setContext(const char* libName, CallerTypes caller, char* data) const {
  return find<decltype(::setContext)>("setContext")(libName, caller, data);
}

std::string LoadedModule::empId() const {
  char text[128] = {};
  find<decltype(::getEMPID)>("getEMPID")(text);
  return text;
}

std::string LoadedModule::activeVersion() const {
  char text[128] = "not written";
  const int result = find<decltype(::getActiveVersion)>("getActiveVersion")(text);
  return result == 0 ? text : "error " + std::to_string(result) + text;
}

int LoadedModule::need(const std::string& version) const {
  int need = -7;
  const int result = find<decltype(::checkVersion)>("checkVersion")(version.c_str(), &need);
  return result == 0 ? need : result;
}

unsigned int LoadedModule::progress() const {
  unsigned int percent = 1000;
  find<decltype(::getUpdateProgress)>("getUpdateProgress")(&percent);
  return percent;
}

int LoadedModule::expectedTime() const {
  int seconds = -7;
  const int result = find<decltype(::getExpectedTime)>("getExpectedTime")(&seconds);
  return result == 0 ? seconds : result;
}

int LoadedModule::update(const std::string& version, const std::string& path, unsigned long crc) const {
  std::ofstream(kInformationPath) << R"({"version": ")" << version << "\"}";
  need(version);
  errno = 0;
  return find<decltype(::doUpdate)>("doUpdate")(path.c_str(), crc);
}

int LoadedModule::updateFromMemory(const std::string& version, const std::string& image) const {
  need(version);
  errno = 0;
  return find<decltype(::doUpdate_decryption)>("doUpdate_decryption")(
      reinterpret_cast<const unsigned char*>(image.data()), static_cast<int>(image.size()));
}

Child::Child(const std::function<int()>& body) : id_(::fork()) {
  if (id_ < 0) {
    throw std::system_error(errno, std::generic_category(), "fork");
  }
  if (id_ == 0) {
    ::_exit(body());
  }
}

Child::~Child() {
  if (id_ > 0) {
    kill();
  }
}

int Child::wait() {
  int status = 0;
  const pid_t ended = ::waitpid(id_, &status, 0);
  if (ended != id_) {
    throw std::system_error(errno, std::generic_category(), "waitpid");
  }
  id_ = 0;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

void Child::kill() {
  ::kill(id_, SIGKILL);
  wait();
}

std::string ModuleTest::makeImage(std::size_t size, unsigned int seed) {
  std::minstd_rand random(seed);
  std::string image(size, '\0');
  for (char& byte : image) {
    byte = static_cast<char>(random());
  }
  return image;
}

// Bit by bit, apart from the code under test.
std::uint32_t ModuleTest::crcOf(const std::string& content) {
  std::uint32_t crc = 0;
  for (const char byte : content) {
    crc ^= static_cast<std::uint32_t>(static_cast<unsigned char>(byte)) << 24;
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc & 0x80000000u) != 0 ? (crc << 1) ^ 0x01B23CA3u : crc << 1;
    }
  }
  return crc;
}

int ModuleTest::updateFrom(const LoadedModule& module, const std::string& version, const std::string& image) {
  writeFile(kImagePath, image);
  return module.update(version, kImagePath, crcOf(image));
}

std::string ModuleTest::flashContent(const std::string& firmwareName) {
  const std::string file = readFile(kComponents + firmwareName + ".flash");
  fwcomponent::FlashHeaderBytes bytes{};
  if (file.size() < bytes.size()) {
    ADD_FAILURE() << "the flash of " << firmwareName << " has no header";
    return "";
  }
  std::copy_n(file.begin(), bytes.size(), bytes.begin());
  const fwcomponent::FlashHeader header = fwcomponent::decodeHeader(bytes);
  const std::string content = file.substr(bytes.size());
  EXPECT_EQ(header.size, content.size());
  EXPECT_EQ(header.crc, crcOf(content));
  return content;
}

void ModuleTest::describeComponent(const std::string& firmwareName, const std::string& text) {
  writeFile(kComponents + firmwareName + ".component", text);
}

void ModuleTest::forgetProgress(const std::string& firmwareName) {
  std::filesystem::remove(kComponents + firmwareName + ".progress");
}

void ModuleTest::waitForProgress(const LoadedModule& module, unsigned int percent) {
  const int watch = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  ASSERT_GE(watch, 0);
  ASSERT_GE(::inotify_add_watch(watch, kComponents, IN_MODIFY | IN_CREATE), 0);
  while (module.progress() < percent) {
    struct pollfd changed {
      watch, POLLIN, 0
    };
    ASSERT_EQ(::poll(&changed, 1, 20000), 1) << "no progress after " << module.progress() << " percent";
    char events[4096];
    while (::read(watch, events, sizeof events) > 0) {
    }
  }
  ::close(watch);
}

std::vector<std::string> ModuleTest::journal() {
  std::ifstream file(std::string(kComponents) + "journal.log");
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) {
    lines.push_back(line);
  }
  return lines;
}

std::string ModuleTest::lastJournalLine() {
  const std::vector<std::string> lines = journal();
  return lines.empty() ? "" : lines.back();
}
