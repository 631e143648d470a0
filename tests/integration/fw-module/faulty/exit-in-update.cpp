// SPDX-License-Identifier: Apache-2.0
// It ends the process when the image is bad.
#define OWN_doUpdate
#include "sound-module.h"

#include <cstdlib>

int doUpdate(const char* path, unsigned long value) {
  const int result = sound::update(path, value);
  if (result != 0) {
    std::exit(3);
  }
  return result;
}
