// SPDX-License-Identifier: Apache-2.0
// Its identifier has 128 characters, and its end no place.
#define OWN_getEMPID
#include "sound-module.h"

int getEMPID(char* out) {
  const std::string identifier = "soundempfw" + std::string(118, 'x');
  volatile char* place = out;
  for (std::size_t i = 0; i <= identifier.size(); ++i) {
    place[i] = identifier.c_str()[i];
  }
  return 0;
}
