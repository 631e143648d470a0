// SPDX-License-Identifier: Apache-2.0
#include "squashfs.h"

namespace image {

std::vector<std::string> squashfsCommand(const std::string& folder, const std::string& package) {
  return {"mksquashfs", folder, package,     "-noappend",           "-no-progress", "-no-xattrs",
          "-comp",      "gzip", "-all-root", "-reproducible",       "-mkfs-time",   "0",
          "-all-time",  "0",    "-action",   "chmod(0644)@type(f)", "-action",      "chmod(0755)@type(d)"};
}

}  // namespace image
