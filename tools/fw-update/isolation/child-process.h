// SPDX-License-Identifier: Apache-2.0
// A child of this process that goes on in its place, and its record. Owns both; the process is
// not waited for when it still runs at the end. One thread.
#ifndef FW_UPDATE_TOOL_CHILD_PROCESS_H
#define FW_UPDATE_TOOL_CHILD_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "file-descriptor.h"
#include "isolation/child-record.h"

namespace tool {

class ChildProcess {
 public:
  // Forks: isChild() then is true in one of the two processes, which has the signals as they
  // were. The other one takes the signals that end a command, and the child's end, away from
  // itself: the former are handed out by wait(). Throws std::system_error.
  // module: the one that the command names; empty when it names none.
  explicit ChildProcess(const std::string& module);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // fromTerminal: the child has got the signal as well.
  using OnSignal = std::function<void(int signal, bool fromTerminal)>;
  // Waits for something to happen, at most this long.
  void wait(std::chrono::milliseconds atMost, const OnSignal& onSignal);

  bool isChild() const { return process_ == 0; }

  // As waitpid gives it; empty while it runs.
  std::optional<int> status();
  void kill(int signal);
  pid_t id() const { return process_; }
  ChildRecord& record() const { return *record_; }
  // For the child: the record lasts as long as it does.
  ChildRecord& keepRecord() { return *record_.release(); }

 private:
  struct Unmap {
    void operator()(ChildRecord* record) const;
  };

  void giveSignalsBack() const;

  std::unique_ptr<ChildRecord, Unmap> record_;
  pid_t process_ = -1;
  std::optional<int> ended_;
  base::FileDescriptor signals_;
  sigset_t maskBefore_ = {};
  struct sigaction pipeBefore_ = {};
};

}  // namespace tool

#endif
