// SPDX-License-Identifier: Apache-2.0
// What the library keeps resident: this process as it is, with the library loaded, and
// with the facade up and ten modules, each in bytes, as a JSON object. Nothing of the
// library is linked, so that the process is bare before it loads it.
#include <dlfcn.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "device-namespace.h"

namespace {
namespace fs = std::filesystem;

constexpr int kModules = 10;
constexpr const char* kControls = "/prd/usr/fwupdate/controls";
constexpr const char* kGetInstance = "_ZN15FWUpdateContorl11getInstanceEv";

struct Resident {
  long total = 0;
  long own = 0;  // what no file backs or what was changed
};

// The kernel's count of this moment; the one in /proc/self/status lags behind.
Resident resident() {
  std::ifstream file("/proc/self/smaps_rollup");
  Resident found;
  for (std::string word; file >> word;) {
    long kib = 0;
    if (word == "Rss:" && file >> kib) {
      found.total = kib * 1024;
    } else if (word == "Private_Dirty:" && file >> kib) {
      found.own = kib * 1024;
    }
  }
  return found;
}

void* required(void* found) {
  if (found == nullptr) {
    throw std::runtime_error(dlerror());
  }
  return found;
}

void print(const char* name, const Resident& memory, const char* end) {
  std::printf("  \"%s\": {\"resident\": %ld, \"private\": %ld}%s\n", name, memory.total, memory.own, end);
}

}  // namespace

int main() {
  sandbox::enterDevice({"", {BUILD_TREE}});
  for (int i = 0; i < kModules; ++i) {
    fs::copy_file(EMPTY_MODULE, std::string(kControls) + "/libmodule" + std::to_string(i) + ".so");
  }

  const Resident bare = resident();
  void* const library = required(dlopen(LIBRARY, RTLD_LAZY));
  const Resident loaded = resident();
  reinterpret_cast<void* (*)()>(required(dlsym(library, kGetInstance)))();
  const Resident facadeUp = resident();

  std::puts("{");
  print("bare", bare, ",");
  print("loaded", loaded, ",");
  print("facade_up", facadeUp, "");
  std::puts("}");
  return 0;
}
