// SPDX-License-Identifier: Apache-2.0
// A global of it waits for ever when it is destroyed.
#include "sound-module.h"

namespace {

struct Global {
  ~Global() {
    for (;;) {
      pause();
    }
  }
} global;

}  // namespace
