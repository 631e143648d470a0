// SPDX-License-Identifier: Apache-2.0
// It has a word for each package that it takes, and none for the empty one that it refuses.
#define OWN_doUpdate_decryption
#include "sound-module.h"

int doUpdate_decryption(const unsigned char* data, int length) {
  if (length <= 0) {
    return -ENODATA;
  }
  __dlog_print(2, DLOG_ERROR_PRIORITY, "FWUPDATE", "%s: a package of %d bytes", sound::library.c_str(),
               length);
  return sound::activate({reinterpret_cast<const char*>(data), static_cast<std::size_t>(length)},
                         sound::versionToWrite());
}
