// SPDX-License-Identifier: Apache-2.0
// A disk as a power cut left it: an image in a file, which the kernel mounts, journal and
// all, at a directory of the caller's. One thread uses it; only root can mount it.
#ifndef SANDBOX_POWER_CUT_CUT_DISK_H
#define SANDBOX_POWER_CUT_CUT_DISK_H

#include <cstdint>
#include <string>
#include <vector>

#include "disk-states.h"
#include "file-descriptor.h"

namespace powercut {

// A loop device on a file; detached when it is destroyed and nothing is mounted from it.
// Throws std::system_error.
class LoopDisk {
 public:
  explicit LoopDisk(const std::string& file);

  const std::string& path() const { return path_; }
  // Fills so many bytes with zeros, and the kernel forgets what it has read of it.
  void clear(std::uint64_t size) const;

 private:
  std::string path_;
  base::FileDescriptor device_;
};

struct FileSystem {
  std::string kind;     // "ext4"
  std::string options;  // of the mount
};

class CutDisk {
 public:
  // base: the disk before the first epoch. scratch: a file to be made, for the states.
  // Throws std::runtime_error.
  CutDisk(const std::string& base, const std::vector<Epoch>& epochs, const std::string& scratch);

  // The states are those of this epoch from now on; never an earlier one than before.
  void beginEpoch(std::size_t index);
  // Makes the state, mounts it, calls look, and unmounts it. 0, or the errno value of the
  // mount that failed. Throws std::system_error when anything else fails.
  template <typename Look>
  int withState(const Selection& selection, const FileSystem& system, const std::string& directory,
                Look look) {
    makeState(selection);
    const int error = mountAt(system, directory);
    if (error == 0) {
      look();
      unmount(directory);
    }
    return error;
  }

 private:
  void makeState(const Selection& selection);
  int mountAt(const FileSystem& system, const std::string& directory) const;
  static void unmount(const std::string& directory);
  void writeRange(std::size_t begin, std::size_t end);
  bool isZero(std::size_t page) const;

  const std::vector<Epoch>& epochs_;
  std::string now_;                 // the whole disk, with all that is settled
  std::vector<std::size_t> pages_;  // those that can be anything else than zero, by number
  std::size_t begun_ = 0;           // epochs
  base::FileDescriptor file_;
  LoopDisk loop_;
};

}  // namespace powercut

#endif
