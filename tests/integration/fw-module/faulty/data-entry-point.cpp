// SPDX-License-Identifier: Apache-2.0
// An entry point is no function.
#define OWN_getUpdateProgress
#include "sound-module.h"

extern "C" {
FW_UPDATE_MODULE_EXPORT extern int dataOfThatName __asm__("getUpdateProgress");
int dataOfThatName = 42;
}
