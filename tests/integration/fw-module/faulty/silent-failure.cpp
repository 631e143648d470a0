// SPDX-License-Identifier: Apache-2.0
// It fails without saying why.
#define OWN_reason
#include "sound-module.h"
