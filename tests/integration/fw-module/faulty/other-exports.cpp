// SPDX-License-Identifier: Apache-2.0
// It shows more than the entry points.
#include "sound-module.h"

extern "C" FW_UPDATE_MODULE_EXPORT int helperOfTheModule() {
  return 0;
}
