// SPDX-License-Identifier: Apache-2.0
// It links the update library; the build does that.
#include "sound-module.h"
