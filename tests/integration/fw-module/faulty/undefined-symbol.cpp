// SPDX-License-Identifier: Apache-2.0
// It calls what no library has.
#define OWN_allUpdateDone
#include "sound-module.h"

extern "C" int functionOfNoLibrary();

int allUpdateDone() {
  return functionOfNoLibrary();
}
