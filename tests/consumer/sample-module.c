/* SPDX-License-Identifier: Apache-2.0 */
/* The smallest module: plain C, built against the installed headers. */
#include <fw-update-module.h>
#include <string.h>

int setContext(const char* libName, int caller, char* data) {
  (void)libName;
  (void)caller;
  (void)data;
  return 0;
}

int getEMPID(char* out) {
  strcpy(out, "sampleemp");
  return 0;
}

int getActiveVersion(char* out) {
  strcpy(out, "1.0");
  return 0;
}

int checkVersion(const char* version, int* need) {
  *need = strcmp(version, "1.0") > 0;
  return 0;
}

int doUpdate(const char* path, unsigned long value) {
  (void)path;
  (void)value;
  return 0;
}
