// SPDX-License-Identifier: Apache-2.0
// A module with one fault, which FAULTY_MODULE names as "place fault". The places are
// load, unload and the entry points; the faults segv, abort, exit (with code 3), hang
// and stop (the whole process, as a debugger would). Its firmware name is faultyfw.
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fw-update-module.h"

namespace {

void segv() {
  std::raise(SIGSEGV);
}

void leave() {
  _exit(3);
}

void hang() {
  while (true) {
    pause();
  }
}

// Another thread may be the one that stops first.
void stop() {
  kill(getpid(), SIGSTOP);
  hang();
}

constexpr struct {
  const char* name;
  void (*happen)();
} kFaults[] = {{"segv", segv}, {"abort", std::abort}, {"exit", leave}, {"hang", hang}, {"stop", stop}};

// The fault, if it is to happen here.
void at(const char* place) {
  const char* const setting = std::getenv("FAULTY_MODULE");
  const std::string wanted = setting != nullptr ? setting : "";
  for (const auto& fault : kFaults) {
    if (wanted == place + std::string(" ") + fault.name) {
      fault.happen();
    }
  }
}

bool updated = false;

// An update that is over before anybody asks how far it is would never crash at that.
void goOnUntilTheProgressCrashes() {
  const char* const setting = std::getenv("FAULTY_MODULE");
  if (setting != nullptr && setting == std::string("getUpdateProgress segv")) {
    hang();
  }
}

struct Lifetime {
  Lifetime() { at("load"); }
  ~Lifetime() { at("unload"); }
} lifetime;

}  // namespace

int setContext(const char*, CallerTypes, char*) {
  at("setContext");
  return 0;
}

int getEMPID(char* out) {
  at("getEMPID");
  std::strcpy(out, "faultyempfw");
  return 0;
}

int getActiveVersion(char* out) {
  at(updated ? "getActiveVersion-after" : "getActiveVersion");
  std::strcpy(out, updated ? "2.0" : "1.0");
  return 0;
}

int checkVersion(const char*, int* need) {
  at("checkVersion");
  *need = 1;
  return 0;
}

int doUpdate(const char*, unsigned long) {
  at("doUpdate");
  goOnUntilTheProgressCrashes();
  updated = true;
  return 0;
}

int doUpdate_decryption(const unsigned char*, int) {
  at("doUpdate_decryption");
  updated = true;
  return 0;
}

int getExpectedTime(int* seconds) {
  *seconds = 5;
  return 0;
}

int getUpdateProgress(unsigned int* progress) {
  at("getUpdateProgress");
  *progress = 40;
  return 0;
}
