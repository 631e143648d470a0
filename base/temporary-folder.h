// SPDX-License-Identifier: Apache-2.0
// A folder that is removed with everything in it. One owner; any thread.
#ifndef FW_BASE_TEMPORARY_FOLDER_H
#define FW_BASE_TEMPORARY_FOLDER_H

#include <string>

namespace base {

class TemporaryFolder {
 public:
  // Its name begins with this path. Throws std::system_error.
  explicit TemporaryFolder(const std::string& start);
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder();

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace base

#endif
