// SPDX-License-Identifier: Apache-2.0
// A directory and what lies below it. What it opens and makes is never anywhere else:
// a link that leads out of the directory is refused, whoever put it there, and whenever.
// Holds one descriptor; any thread.
#ifndef SANDBOX_DIRECTORY_TREE_H
#define SANDBOX_DIRECTORY_TREE_H

#include <sys/types.h>

#include <string>

#include "file-descriptor.h"

namespace sandbox {

// A reader sees the old file or the new one, never a part. A link of this name, or where
// the new file is written first, is replaced and never followed. Throws
// std::system_error.
void replaceFile(const base::FileDescriptor& directory, const std::string& name, const std::string& content);

class DirectoryTree {
 public:
  // Throws std::system_error when it cannot be opened.
  explicit DirectoryTree(const std::string& directory);

  // Who it belongs to.
  uid_t owner() const;
  bool isSame(const DirectoryTree& other) const;

  // path begins with "/", which is the directory itself. flags as for open; the
  // descriptor is empty when nothing is there. Throws std::system_error otherwise.
  base::FileDescriptor open(const std::string& path, int flags) const;

  // The directory at path, made with its parents when it is missing. Its descriptor's
  // path() names it for as long as that lives. Throws std::system_error.
  base::FileDescriptor make(const std::string& path, mode_t mode = 0755) const;

  // What stands at path in a regular file; nothing when there is none.
  std::string read(const std::string& path) const;
  // A new file takes the place of what stood at path, a link too.
  void write(const std::string& path, const std::string& content) const;

 private:
  base::FileDescriptor attempt(const std::string& path, int flags) const;
  [[noreturn]] void fail(const std::string& path) const;

  std::string name_;
  base::FileDescriptor directory_;
};

}  // namespace sandbox

#endif
