// SPDX-License-Identifier: Apache-2.0
#include "service/service-library.h"

#include <dlfcn.h>
#include <unistd.h>

#include <climits>

#include "outcomes.h"

namespace tool {
namespace {

// The same place, seen from the program, where it is built and where it is installed.
std::string libraryPath() {
  char self[PATH_MAX] = {};
  const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
  const std::string path(self, length > 0 ? static_cast<std::size_t>(length) : 0);
  return path.substr(0, path.rfind('/')) + "/../" FW_LIBRARY_DIRECTORY "/fw-update/service-client.so";
}

}  // namespace

std::unique_ptr<ServiceClient> openService(const std::string& bus) {
  // Kept: the client's code lies in it.
  static void* const kLibrary = dlopen(libraryPath().c_str(), RTLD_NOW | RTLD_LOCAL);
  void* const found = kLibrary != nullptr ? dlsym(kLibrary, kMakeServiceClient) : nullptr;
  if (found == nullptr) {
    const char* const reason = dlerror();
    throw frame::Failure(Outcome::Unexpected,
                         std::string("What asks the update service cannot be loaded: ") +
                             (reason != nullptr ? reason : "it is another library") + ".",
                         "Install fw-update anew, or use it without the service.");
  }
  std::unique_ptr<ServiceClient> client;
  reinterpret_cast<MakeServiceClient*>(found)(bus, client);
  return client;
}

}  // namespace tool
