// SPDX-License-Identifier: Apache-2.0
// It keeps the pointer to the library name instead of the name.
#define OWN_setContext
#define OWN_getActiveVersion
#include "sound-module.h"

namespace {

const char* libraryName = nullptr;

}  // namespace

int setContext(const char* libName, CallerTypes, char*) {
  libraryName = libName;
  sound::keepName(libName);
  return 0;
}

int getActiveVersion(char* out) {
  const bool named = libraryName[0] != '\0';
  std::snprintf(out, 128, "%s", named ? sound::activeVersion().c_str() : "0.0.0");
  return 0;
}
