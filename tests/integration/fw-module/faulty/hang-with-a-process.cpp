// SPDX-License-Identifier: Apache-2.0
// It starts a program of its own, and both wait for hardware that never answers.
#define OWN_doUpdate
#include <fcntl.h>

#include "sound-module.h"

int doUpdate(const char*, unsigned long) {
  const pid_t helper = fork();
  if (helper == 0) {
    setsid();  // out of reach of the terminal's Ctrl-C
    close(open("/tmp/author/helper", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  }
  for (;;) {
    pause();
  }
}
