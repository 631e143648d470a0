// SPDX-License-Identifier: Apache-2.0
// A global of it crashes when it is destroyed.
#include "sound-module.h"

namespace {

struct Global {
  ~Global() {
    volatile int* volatile nowhere = nullptr;
    *nowhere = 1;
  }
} global;

}  // namespace
