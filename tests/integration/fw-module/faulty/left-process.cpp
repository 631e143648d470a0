// SPDX-License-Identifier: Apache-2.0
// It leaves a process behind with every update.
#define OWN_doUpdate
#include "sound-module.h"

int doUpdate(const char* path, unsigned long value) {
  const pid_t child = fork();
  while (child == 0) {
    pause();
  }
  return sound::update(path, value);
}
