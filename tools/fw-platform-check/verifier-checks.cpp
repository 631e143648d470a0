// SPDX-License-Identifier: Apache-2.0
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "checks.h"

namespace conformance {
namespace {

using VerifyFile = int (*)(int, const char*, const char*);

constexpr const char* kVerifierPath = "/usr/lib/libkZAQUser.so";

VerifyFile verifyFile() {
  void* const library = dlopen(kVerifierPath, RTLD_NOW);  // stays open as long as the process
  return library == nullptr ? nullptr : reinterpret_cast<VerifyFile>(dlsym(library, "verifyFile"));
}

Finding expectRefused(const std::string& path) {
  const VerifyFile verify = verifyFile();
  if (verify == nullptr) {
    return broken(std::string(kVerifierPath) + " cannot be used: every package is taken, signed or not");
  }
  return verify(0, path.c_str(), "UserCaller") == 0 ? kept() : broken("it was taken");
}

}  // namespace

Finding verifierRefusesUnsigned() {
  const int file = memfd_create("unsigned", 0);
  const std::string content(5000, 'x');
  if (file < 0 || write(file, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
    return notChecked("no file could be made");
  }
  return expectRefused("/proc/self/fd/" + std::to_string(file));
}

Finding verifierRefusesMissing() {
  return expectRefused("/nowhere/platform-check.bin");
}

}  // namespace conformance
