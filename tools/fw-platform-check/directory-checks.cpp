// SPDX-License-Identifier: Apache-2.0
#include <sys/stat.h>

#include <string>

#include "checks.h"

namespace conformance {
namespace {

// Those that nobody makes by the way; the installed lib/tmpfiles.d/fw-update.conf does.
constexpr const char* kNeeded[] = {
    "/prd/usr/fwupdate/controls",
    "/opt/usr/apps/appbinarymanager",
    "/opt/usr/apps/appbinarymanager/emps",
};

bool isDirectory(const char* path) {
  struct stat status = {};
  return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

Finding directoriesAreThere() {
  std::string missing;
  for (const char* path : kNeeded) {
    if (!isDirectory(path)) {
      missing += (missing.empty() ? "" : ", ") + std::string(path);
    }
  }
  return missing.empty() ? kept() : broken("missing: " + missing + "; make it, root's and of mode 0755");
}

}  // namespace conformance
