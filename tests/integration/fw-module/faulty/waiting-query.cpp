// SPDX-License-Identifier: Apache-2.0
// It tells its progress when the update is over.
#define OWN_doUpdate
#define OWN_getUpdateProgress
#include "sound-module.h"
#include "watched-update.h"

namespace {

std::mutex updating;

}  // namespace

int doUpdate(const char* path, unsigned long value) {
  const std::lock_guard<std::mutex> lock(updating);
  if (sound::isWatched()) {
    std::this_thread::sleep_for(std::chrono::seconds(2));
  }
  return sound::update(path, value);
}

int getUpdateProgress(unsigned int* progress) {
  const std::lock_guard<std::mutex> lock(updating);
  *progress = sound::percent;
  return 0;
}
