// SPDX-License-Identifier: Apache-2.0
// The module library behind scripted-module.h. It knows itself by the stem of the
// file that it was loaded from. Built once whole and once without each entry point.
#include <dlfcn.h>

#include <cstring>
#include <string>

#include "fw-update-module.h"

extern "C" {
int scripted_setContext(const char* stem, const char* libName, int caller, char* data);
int scripted_getEMPID(const char* stem, char* out);
int scripted_getActiveVersion(const char* stem, char* out);
int scripted_checkVersion(const char* stem, const char* version, int* need);
int scripted_doUpdate(const char* stem, const char* path, unsigned long value);
int scripted_allUpdateDone(const char* stem);
int scripted_doUpdate_decryption(const char* stem, const unsigned char* data, int length);
int scripted_getExpectedTime(const char* stem, int* seconds);
int scripted_getUpdateProgress(const char* stem, unsigned int* progress);
#ifdef CALLS_AN_UNDEFINED_FUNCTION
int scripted_undefined();
#endif
}

[[maybe_unused]] static const char* stem() {
  static const std::string kName = [] {
    Dl_info info;
    dladdr(reinterpret_cast<const void*>(&stem), &info);
    const char* const slash = std::strrchr(info.dli_fname, '/');
    const std::string file = slash == nullptr ? info.dli_fname : slash + 1;
    return file.substr(0, file.rfind('.'));
  }();
  return kName.c_str();
}

#ifndef WITHOUT_setContext
int setContext(const char* libName, enum CallerTypes caller, char* data) {
  return scripted_setContext(stem(), libName, caller, data);
}
#endif
#ifndef WITHOUT_getEMPID
int getEMPID(char* out) {
  return scripted_getEMPID(stem(), out);
}
#endif
#ifndef WITHOUT_getActiveVersion
int getActiveVersion(char* out) {
  return scripted_getActiveVersion(stem(), out);
}
#endif
#ifndef WITHOUT_checkVersion
int checkVersion(const char* version, int* need) {
  return scripted_checkVersion(stem(), version, need);
}
#endif
#ifndef WITHOUT_doUpdate
int doUpdate(const char* path, unsigned long value) {
  return scripted_doUpdate(stem(), path, value);
}
#endif
#ifndef WITHOUT_allUpdateDone
int allUpdateDone(void) {
#ifdef CALLS_AN_UNDEFINED_FUNCTION
  scripted_undefined();
#endif
  return scripted_allUpdateDone(stem());
}
#endif
#ifndef WITHOUT_doUpdate_decryption
int doUpdate_decryption(const unsigned char* data, int length) {
  return scripted_doUpdate_decryption(stem(), data, length);
}
#endif
#ifndef WITHOUT_getExpectedTime
int getExpectedTime(int* seconds) {
  return scripted_getExpectedTime(stem(), seconds);
}
#endif
#ifndef WITHOUT_getUpdateProgress
int getUpdateProgress(unsigned int* progress) {
  return scripted_getUpdateProgress(stem(), progress);
}
#endif
