// SPDX-License-Identifier: Apache-2.0
// A module with all nine entry points that does nothing, for measuring the library
// around it. A program that starts updates defines benchDoUpdate; it is asked what
// doUpdate shall answer.
#include <cstring>

#include "fw-update-module.h"

extern "C" [[gnu::weak]] int benchDoUpdate();

int setContext(const char* /*libName*/, CallerTypes /*caller*/, char* /*data*/) {
  return 0;
}

int getEMPID(char* out) {
  std::strcpy(out, "benchempfw");
  return 0;
}

int getActiveVersion(char* out) {
  std::strcpy(out, "1.0.0");
  return 0;
}

int checkVersion(const char* /*version*/, int* need) {
  *need = 1;
  return 0;
}

int doUpdate(const char* /*path*/, unsigned long /*value*/) {
  return benchDoUpdate == nullptr ? 0 : benchDoUpdate();
}

int allUpdateDone() {
  return 0;
}

int doUpdate_decryption(const unsigned char* /*data*/, int /*length*/) {
  return 0;
}

int getExpectedTime(int* seconds) {
  *seconds = 1;
  return 0;
}

int getUpdateProgress(unsigned int* progress) {
  *progress = 100;
  return 0;
}
