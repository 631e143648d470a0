// SPDX-License-Identifier: Apache-2.0
// Without a fault: it says that it does not know its progress, and what it writes counts for nothing.
#define OWN_doUpdate
#define OWN_getUpdateProgress
#include "watched-update.h"

int doUpdate(const char* path, unsigned long value) {
  return sound::watchedUpdate(path, value);
}

int getUpdateProgress(unsigned int* progress) {
  *progress = 255;
  ++sound::asked;
  return -1;
}
