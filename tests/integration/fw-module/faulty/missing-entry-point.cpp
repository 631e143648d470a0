// SPDX-License-Identifier: Apache-2.0
// A required entry point is not there.
#define OWN_checkVersion
#include "sound-module.h"
