// SPDX-License-Identifier: Apache-2.0
#include "package-images.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace fs = std::filesystem;

std::string uniquePackageName() {
  static int count = 0;
  return "p" + std::to_string(getpid()) + "n" + std::to_string(++count) + "empfw";
}

std::string imagePath(const std::string& name) {
  return kPackages + "/" + name + ".img";
}

std::string directoryPath(const std::string& name) {
  return kEmps + "/" + name;
}

std::string makeImage(const std::string& name, const std::string& content, const std::string& options) {
  const fs::path tree = "/tmp/tree-" + name;
  fs::create_directories(tree);
  std::ofstream(tree / "content", std::ios::binary) << content;
  const std::string command = "mksquashfs " + tree.string() + " " + imagePath(name) +
                              " -noappend -quiet -no-progress -all-root " + options + " >/dev/null";
  if (std::system(command.c_str()) != 0) {
    throw std::runtime_error("mksquashfs failed");
  }
  fs::remove_all(tree);
  return imagePath(name);
}

std::string makeDirectory(const std::string& name) {
  fs::create_directories(directoryPath(name));
  return directoryPath(name);
}

std::string mountText(const std::string& name) {
  return "-o ro,loop,nodev,nosuid " + imagePath(name) + " " + directoryPath(name);
}

std::vector<MountEntry> mountsOn(const std::string& path) {
  std::vector<MountEntry> mounts;
  std::ifstream table("/proc/self/mounts");
  for (std::string line; std::getline(table, line);) {
    std::istringstream words(line);
    MountEntry entry;
    std::string target;
    words >> entry.source >> target >> entry.type >> entry.options;
    if (target == path) {
      mounts.push_back(entry);
    }
  }
  return mounts;
}

std::vector<std::string> loopDevicesOf(const std::string& name) {
  std::vector<std::string> devices;
  for (const auto& entry : fs::directory_iterator("/sys/block")) {
    std::ifstream file(entry.path() / "loop/backing_file");
    std::string backing;
    if (std::getline(file, backing) && fs::path(backing).filename() == name + ".img") {
      devices.push_back(entry.path().filename());
    }
  }
  return devices;
}

std::vector<std::string> loopDevicesLeftOf(const std::string& name) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  std::vector<std::string> devices = loopDevicesOf(name);
  while (!devices.empty() && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    devices = loopDevicesOf(name);
  }
  return devices;
}
