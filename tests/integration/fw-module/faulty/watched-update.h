// SPDX-License-Identifier: Apache-2.0
// An update that goes on when its progress has been asked for often enough.
#ifndef FAULTY_WATCHED_UPDATE_H
#define FAULTY_WATCHED_UPDATE_H

#include <atomic>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <thread>

#include "sound-module.h"

namespace sound {

inline std::atomic<bool> running{false};
inline std::atomic<unsigned int> asked{0};

// Only a process with more threads than the updating and the waiting one has somebody
// who asks.
inline bool isWatched() {
  const std::filesystem::directory_iterator threads("/proc/self/task");
  return std::distance(threads, std::filesystem::directory_iterator()) > 2;
}

inline void waitUntilAsked(unsigned int times) {
  asked = 0;
  running = true;
  while (isWatched() && asked < times) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  running = false;
}

// Goes on when its progress was asked for eight times.
inline int watchedUpdate(const char* path, unsigned long value) {
  waitUntilAsked(8);
  return update(path, value);
}

}  // namespace sound

#endif
