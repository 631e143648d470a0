// SPDX-License-Identifier: Apache-2.0
// The second step of its update begins at 0 again.
#define OWN_doUpdate
#define OWN_getUpdateProgress
#include "watched-update.h"

int doUpdate(const char* path, unsigned long value) {
  return sound::watchedUpdate(path, value);
}

int getUpdateProgress(unsigned int* progress) {
  static constexpr unsigned int kSteps[] = {10, 40, 80, 0, 20, 60};
  *progress = sound::running ? kSteps[sound::asked++ % 6] : 0;
  return 0;
}
