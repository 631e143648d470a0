// SPDX-License-Identifier: Apache-2.0
// It reads one byte more of a package than there is.
#define OWN_doUpdate_decryption
#include "sound-module.h"

int doUpdate_decryption(const unsigned char* data, int length) {
  if (length <= 0) {
    return sound::failure(ENODATA);
  }
  const volatile unsigned char* bytes = data;
  return bytes[length] == 0 ? 0 : sound::failure(EBADMSG);
}
