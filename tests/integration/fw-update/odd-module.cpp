// SPDX-License-Identifier: Apache-2.0
// A module that misbehaves as ODD_MODULE says, one word; without it, it updates at
// once. Its firmware name is oddfw.
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "fw-update-module.h"

namespace {

bool is(const char* behaviour) {
  const char* wanted = std::getenv("ODD_MODULE");
  return wanted != nullptr && std::strcmp(wanted, behaviour) == 0;
}

bool updating = false;

// With "old-progress" so many first answers are those of an earlier update, with "much-progress"
// they are more than all; and the update goes on until there were some of its own.
constexpr int kOldAnswers = 5;
constexpr int kAnswers = 10;
std::atomic<int> answers{0};

}  // namespace

int setContext(const char*, CallerTypes caller, char*) {
  return is("refuses-request") && caller != CALLER_QUERY && updating ? -1 : 0;
}

int getEMPID(char* out) {
  std::strcpy(out, is("bad-identifier") ? "odd-emp" : "oddempfw");
  return 0;
}

int getActiveVersion(char* out) {
  if (is("throwing-version")) {
    throw std::runtime_error("no answer");
  }
  std::strcpy(out, is("no-version") ? "" : "1.0");
  return is("failing-version") ? -5 : 0;
}

#ifndef WITHOUT_CHECK_VERSION
int checkVersion(const char*, int* need) {
  updating = true;  // the second request of an update is the one to refuse
  if (is("throwing-check")) {
    throw std::runtime_error("no answer");
  }
  *need = is("needs-twice") ? 2 : 1;
  return is("failing-check") ? -5 : 0;
}
#endif

int doUpdate(const char*, unsigned long) {
  if (is("throwing-update")) {
    throw std::runtime_error("flash controller lost");
  }
  while ((is("old-progress") || is("much-progress")) && answers < kAnswers) {
    usleep(1000);
  }
  return is("answers-one") ? 1 : 0;
}

#ifdef WITH_PACKAGES
int doUpdate_decryption(const unsigned char*, int) {
  return 0;
}

int getExpectedTime(int* seconds) {
  if (is("throwing-time")) {
    throw std::runtime_error("no answer");
  }
  *seconds = 7;
  return 0;
}
#endif

#ifndef WITHOUT_PROGRESS
int getUpdateProgress(unsigned int* progress) {
  while (is("hanging-progress")) {
    pause();
  }
  const bool isOld = ++answers <= kOldAnswers;
  *progress = isOld && is("old-progress") ? 100 : isOld && is("much-progress") ? 101 : 50;
  return is("failing-progress") ? -5 : 0;
}
#endif
