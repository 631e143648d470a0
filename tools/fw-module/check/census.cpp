// SPDX-License-Identifier: Apache-2.0
#include "census.h"

#include <chrono>
#include <filesystem>
#include <iterator>
#include <system_error>
#include <thread>

namespace fwmodule {
namespace fs = std::filesystem;
namespace {

constexpr std::chrono::milliseconds kPause(5);
constexpr int kPauses = 200;

std::size_t countThreads() {
  const auto threads = std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator());
  return static_cast<std::size_t>(threads);
}

}  // namespace

Census takeCensus() {
  Census census;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;  // the one that reads the directory is
    const std::string target = fs::read_symlink(entry.path(), gone);
    if (!gone && target.find("/proc/") != 0) {
      census.descriptors.emplace(std::stoi(entry.path().filename()), target);
    }
  }
  census.threads = countThreads();
  return census;
}

Census takeCensusAfter(const Census& before) {
  for (int pause = 0; pause < kPauses && countThreads() > before.threads; ++pause) {
    std::this_thread::sleep_for(kPause);
  }
  return takeCensus();
}

std::string openedSince(const Census& before, const Census& after) {
  std::string opened;
  for (const auto& [descriptor, target] : after.descriptors) {
    if (before.descriptors.count(descriptor) == 0) {
      opened += (opened.empty() ? "" : ", ") + target;
    }
  }
  return opened;
}

}  // namespace fwmodule
