// SPDX-License-Identifier: Apache-2.0
// No fault at all.
#include "sound-module.h"
