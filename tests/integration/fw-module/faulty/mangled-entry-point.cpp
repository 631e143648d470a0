// SPDX-License-Identifier: Apache-2.0
// A required entry point has other parameters, and so another symbol.
#define OWN_checkVersion
#include "sound-module.h"

FW_UPDATE_MODULE_EXPORT int checkVersion(char* version, long* need) {
  *need = version[0] != '\0';
  return 0;
}
