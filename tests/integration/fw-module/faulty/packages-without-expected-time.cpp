// SPDX-License-Identifier: Apache-2.0
// It takes USB packages, but none is ever applied.
#define OWN_getExpectedTime
#include "sound-module.h"
