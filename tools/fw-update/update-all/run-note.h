// SPDX-License-Identifier: Apache-2.0
// A note of the update-all run that is under way, in /run/fw-update, so that the
// next command can tell of one that was cut off. The run holds a file lock, which
// the kernel takes back however the process ends. One thread.
#ifndef FW_UPDATE_TOOL_RUN_NOTE_H
#define FW_UPDATE_TOOL_RUN_NOTE_H

#include <cstddef>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "file-descriptor.h"
#include "outcomes.h"

namespace tool {

class RunNote {
 public:
  // Keeps other runs away; nothing is noted yet.
  RunNote();
  ~RunNote();
  RunNote(const RunNote&) = delete;
  RunNote& operator=(const RunNote&) = delete;

  // Another process has a run under way.
  bool otherRuns() const { return busy_; }
  // names: of the run's modules, in their order.
  void runStarted(std::vector<std::string> names);
  // number: from 1; the ones before have ended. names: of the run's modules as they are now.
  void moduleStarted(std::size_t number, std::vector<std::string> names);
  // The run came to its end: there is nothing to tell.
  void finished();

 private:
  void write(std::size_t number) const;

  std::vector<std::string> libraries_;
  const int exceptionsBefore_ = std::uncaught_exceptions();
  base::FileDescriptor directory_;
  base::FileDescriptor lock_;
  bool busy_ = false;
};

// What a run that was cut off left behind, told once: the note is taken away.
std::optional<Finding> takeInterruptedRun();

}  // namespace tool

#endif
