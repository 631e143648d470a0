// SPDX-License-Identifier: Apache-2.0
// It cuts the version in pieces where the caller has it.
#define OWN_checkVersion
#include "sound-module.h"

int checkVersion(const char* version, int* need) {
  const std::string whole = version;
  if (char* const dot = const_cast<char*>(std::strchr(version, '.'))) {
    *dot = '\0';
  }
  return sound::checkVersion(whole.c_str(), need);
}
