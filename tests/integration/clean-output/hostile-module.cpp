// SPDX-License-Identifier: Apache-2.0
// A module whose answers are not for terminals. HOSTILE_TEXT is what it says wherever it
// may say something; with HOSTILE_IDENTIFIER its package identifier is that text, too.
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "fw-update-module.h"

namespace {

std::string text() {
  const char* const value = std::getenv("HOSTILE_TEXT");
  return value != nullptr ? value : "";
}

}  // namespace

int setContext(const char*, CallerTypes, char*) {
  return 0;
}

int getEMPID(char* out) {
  std::strcpy(out, std::getenv("HOSTILE_IDENTIFIER") != nullptr ? text().c_str() : "hostileempfw");
  return 0;
}

int getActiveVersion(char* out) {
  std::strcpy(out, text().c_str());
  return 0;
}

int checkVersion(const char*, int* need) {
  *need = 1;
  return 0;
}

int doUpdate(const char*, unsigned long) {
  throw std::runtime_error(text());
}

int getUpdateProgress(unsigned int* progress) {
  *progress = 40;
  return 0;
}
