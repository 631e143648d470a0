// SPDX-License-Identifier: Apache-2.0
// A file system with one file, whose bytes may differ each time they are read from the
// drive, as those of a drive that lies or fails. Real: FUSE, in a process of its own,
// without any cache in between.
#ifndef LYING_FILE_SYSTEM_H
#define LYING_FILE_SYSTEM_H

#include <cstdint>
#include <memory>
#include <string>

#include "child-process.h"

class LyingFileSystem {
 public:
  // Empty when one can be mounted here, else the reason.
  static std::string whyNot();

  // Mounts it on a directory; the file is called abc.bin. To be used while the test has
  // one thread. Throws std::runtime_error.
  LyingFileSystem(const std::string& directory, const std::string& content);
  ~LyingFileSystem();
  LyingFileSystem(const LyingFileSystem&) = delete;
  LyingFileSystem& operator=(const LyingFileSystem&) = delete;

  // From now on the byte at offset is another one from the given reading of it on (1 is
  // the next), or cannot be read at all.
  void lieAbout(std::int64_t offset, int fromReading);
  void failAt(std::int64_t offset, int fromReading);
  void tellTheTruth();

  // How often the byte was read since.
  int readings() const;

 private:
  struct Control;

  Control* control_;  // shared with the process
  std::string directory_;
  std::unique_ptr<ChildProcess> process_;
};

#endif
