// SPDX-License-Identifier: Apache-2.0
#include <cerrno>
#include <cstring>

#include "module-entry.h"
#include "posix-file.h"

namespace {

using fwcomponent::answer;
using fwcomponent::answerUpdate;
using fwcomponent::thisComponent;

// The caller's place for an answer.
template <typename T>
T& required(T* place) {
  if (place == nullptr) {
    fwcomponent::fail(EINVAL, "no place for the answer");
  }
  return *place;
}

}  // namespace

int setContext(const char* libName, CallerTypes caller, char* data) {
  return answer([&] { thisComponent().setContext(libName, caller, data); });
}

int getEMPID(char* out) {
  return answer([&] { std::strcpy(&required(out), thisComponent().empId()); });
}

int getActiveVersion(char* out) {
  return answer([&] {
    required(out) = '\0';
    std::strcpy(out, thisComponent().activeVersion().c_str());
  });
}

int checkVersion(const char* version, int* need) {
  return answer([&] { required(need) = thisComponent().isNewer(version) ? 1 : 0; });
}

int allUpdateDone() {
  return answer([] { thisComponent().allUpdateDone(); });
}

int doUpdate_decryption(const unsigned char* data, int length) {
  return answerUpdate([&] { thisComponent().updateFromMemory(data, length); });
}

int getExpectedTime(int* seconds) {
  return answer([&] { required(seconds) = thisComponent().expectedSeconds(); });
}

int getUpdateProgress(unsigned int* progress) {
  return answer([&] { required(progress) = thisComponent().progress(); });
}
