// SPDX-License-Identifier: Apache-2.0
#include "temporary-folder.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "system-error.h"

namespace base {

TemporaryFolder::TemporaryFolder(const std::string& start) : path_(start + ".XXXXXX") {
  if (mkdtemp(path_.data()) == nullptr) {
    throwErrno("no temporary directory can be made at " + path_);
  }
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace base
