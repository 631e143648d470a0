// SPDX-License-Identifier: Apache-2.0
// A module that is copied under many names: libsoak3.so has the package identifier
// soak3emp and the firmware name soak3. The request's data says what it does: one word
// and milliseconds. "update", "fail", "throw" take that long; "late" goes on that long
// after it is done; with "current" no update is needed.
#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "fw-update-module.h"
#include "soak-journal.h"

namespace {

struct Behaviour {
  std::string word;
  int milliseconds = 0;
};

// Version queries set it to nothing, beside an update that ran out of time.
std::mutex mutex;
char request[128] = "";

Behaviour behaviour() {
  const std::lock_guard lock(mutex);
  Behaviour wanted;
  std::istringstream(request) >> wanted.word >> wanted.milliseconds;
  return wanted;
}

std::string firmwareName() {
  Dl_info info{};
  dladdr(reinterpret_cast<const void*>(&getEMPID), &info);
  const std::string path = info.dli_fname;
  const std::size_t begin = path.rfind('/') + 4;
  return path.substr(begin, path.size() - begin - 3);
}

void take(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

}  // namespace

int setContext(const char*, CallerTypes, char* data) {  // NOLINT(readability-non-const-parameter)
  const std::lock_guard lock(mutex);
  std::snprintf(request, sizeof request, "%s", data != nullptr ? data : "");
  return 0;
}

int getEMPID(char* out) {
  std::snprintf(out, 128, "%semp", firmwareName().c_str());
  return 0;
}

int getActiveVersion(char* out) {
  std::strcpy(out, "1.0");
  return 0;
}

int checkVersion(const char*, int* need) {
  *need = behaviour().word == "current" ? 0 : 1;
  return 0;
}

int doUpdate(const char*, unsigned long crc) {
  const Behaviour wanted = behaviour();
  if (crc == 0) {  // its own procedure, which the lock does not guard
    take(wanted.milliseconds);
    return 0;
  }
  const bool isLate = wanted.word == "late";
  soak::journal("begin", getpid());
  take(isLate ? 5 : wanted.milliseconds);
  soak::journal("end", getpid());
  if (isLate) {
    take(wanted.milliseconds);
  }
  if (wanted.word == "throw") {
    throw std::runtime_error("flash controller lost");
  }
  if (wanted.word == "fail") {
    errno = EIO;
    return -EIO;
  }
  return 0;
}

int doUpdate_decryption(const unsigned char*, int) {
  return 0;
}

int getExpectedTime(int* seconds) {
  *seconds = 1;
  return 0;
}

int getUpdateProgress(unsigned int* progress) {
  *progress = 40;
  return 0;
}
