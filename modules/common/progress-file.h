// SPDX-License-Identifier: Apache-2.0
// The progress of a component's update, in a file that any process can read
// (docs/formats/component-flash.md). The writer locks the file for as long as it
// lives: that lock is also what keeps two updates of one component apart, and a
// killed update loses it. readProgress may be called from any thread.
#ifndef MODULES_COMMON_PROGRESS_FILE_H
#define MODULES_COMMON_PROGRESS_FILE_H

#include <string>

#include "posix-file.h"

namespace fwcomponent {

class ProgressWriter {
 public:
  // Starts at 0. Throws std::system_error, with EBUSY when another update of the
  // component runs, in this process or in another one.
  explicit ProgressWriter(const std::string& firmwareName);

  void report(unsigned int percent);

 private:
  FileDescriptor file_;
  unsigned int percent_ = 0;
};

// 0 to 100: what the running update last reported; without one, 100 when the last
// update was completed, else 0.
unsigned int readProgress(const std::string& firmwareName);

}  // namespace fwcomponent

#endif
