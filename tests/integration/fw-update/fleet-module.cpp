// SPDX-License-Identifier: Apache-2.0
// A module that is copied under many names. Its package identifier comes from its
// file's name: libfleet07.so has fleet07emp and the firmware name fleet07. What
// it does stands in the file /var/lib/fw-components/<firmware name>, one word:
// "fail", "crash", "hang" (for ever), "late" (3 s, and then fails), "throw", "throw-check" and
// "throw-end" (in checkVersion, in allUpdateDone), "needed-later" (not needed when a process asks for the
// first time), "needed-once" (no answer when it asks again); without it, it updates. It appends every call
// that the run makes of it to /var/lib/fw-components/calls, and its name to torn-down beside it when its
// process tears it down.
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "fw-update-module.h"

namespace {

constexpr const char* kState = "/var/lib/fw-components/";

std::string firmwareName() {
  Dl_info info{};
  dladdr(reinterpret_cast<const void*>(&getEMPID), &info);
  const std::string path = info.dli_fname;
  const std::size_t begin = path.rfind('/') + 4;
  return path.substr(begin, path.size() - begin - 3);
}

std::string readWord(const std::string& path) {
  std::string word;
  std::ifstream(path) >> word;
  return word;
}

// One write each: calls of several processes are not mixed.
void append(const char* path, const std::string& line) {
  const int file = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  [[maybe_unused]] const ssize_t written = write(file, line.data(), line.size());
  close(file);
}

void note(const std::string& call) {
  append("/var/lib/fw-components/calls", firmwareName() + " " + call + "\n");
}

struct TornDown {
  ~TornDown() { append("/var/lib/fw-components/torn-down", firmwareName() + "\n"); }
};

const TornDown kTornDown;
std::string context;
char wantedVersion[128];  // no object: an update may still run when the process ends

}  // namespace

int setContext(const char*, CallerTypes caller, char* data) {
  context = std::to_string(caller) + "\"" + data + "\"";
  return 0;
}

int getEMPID(char* out) {
  std::snprintf(out, 128, "%semp", firmwareName().c_str());
  return 0;
}

int getActiveVersion(char* out) {
  const std::string version = readWord(kState + firmwareName() + ".version");
  std::snprintf(out, 128, "%s", version.empty() ? "1.0" : version.c_str());
  return 0;
}

int checkVersion(const char* version, int* need) {
  static int asked = 0;
  ++asked;
  const std::string behaviour = readWord(kState + firmwareName());
  if (behaviour == "needed-once" && asked > 1) {
    return -EIO;
  }
  if (behaviour == "throw-check") {
    throw std::runtime_error("no answer");
  }
  char active[128];
  getActiveVersion(active);
  std::snprintf(wantedVersion, sizeof(wantedVersion), "%s", version);
  *need = std::strcmp(wantedVersion, active) != 0 ? 1 : 0;
  if (behaviour == "needed-later" && asked == 1) {
    *need = 0;
  }
  return 0;
}

int doUpdate(const char*, unsigned long) {
  note("update " + context);
  const std::string behaviour = readWord(kState + firmwareName());
  if (behaviour == "throw") {
    throw std::runtime_error("flash controller lost");
  }
  if (behaviour == "crash") {
    std::raise(SIGSEGV);
  }
  while (behaviour == "hang") {
    pause();
  }
  if (behaviour == "late") {
    std::this_thread::sleep_for(std::chrono::seconds(3));
  }
  if (behaviour == "fail" || behaviour == "late") {
    errno = EIO;
    return -EIO;
  }
  std::ofstream(kState + firmwareName() + ".version") << wantedVersion;
  return 0;
}

int allUpdateDone() {
  if (readWord(kState + firmwareName()) == "throw-end") {
    throw std::runtime_error("flash controller lost");
  }
  note("done");
  return 0;
}

int getUpdateProgress(unsigned int* progress) {
  *progress = 40;
  return 0;
}
