// SPDX-License-Identifier: Apache-2.0
// It leaves a thread behind with every update.
#define OWN_doUpdate
#include "sound-module.h"

#include <thread>

int doUpdate(const char* path, unsigned long value) {
  std::thread([] {
    for (;;) {
      pause();
    }
  }).detach();
  return sound::update(path, value);
}
