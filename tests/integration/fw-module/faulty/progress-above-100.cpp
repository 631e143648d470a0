// SPDX-License-Identifier: Apache-2.0
// Its progress goes on after 100 percent.
#define OWN_doUpdate
#define OWN_getUpdateProgress
#include "watched-update.h"

int doUpdate(const char* path, unsigned long value) {
  return sound::watchedUpdate(path, value);
}

int getUpdateProgress(unsigned int* progress) {
  static std::atomic<unsigned int> percent{0};
  if (sound::running) {
    percent = 98 + sound::asked++;
  }
  *progress = percent;
  return 0;
}
