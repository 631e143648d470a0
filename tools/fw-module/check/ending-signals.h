// SPDX-License-Identifier: Apache-2.0
// While one exists, Ctrl-C, a hang-up and a termination wait to be asked for, so that what
// was started can be ended first. What came and was not asked for ends the process
// afterwards, as ever. For a process with one thread.
#ifndef FW_MODULE_CHECK_ENDING_SIGNALS_H
#define FW_MODULE_CHECK_ENDING_SIGNALS_H

#include <csignal>

#include "file-descriptor.h"
#include "interrupted.h"

namespace fwmodule {

class EndingSignals {
 public:
  EndingSignals();
  ~EndingSignals();
  EndingSignals(const EndingSignals&) = delete;
  EndingSignals& operator=(const EndingSignals&) = delete;

  // Can be read when a signal has come.
  int descriptor() const { return descriptor_.get(); }
  // The signal that came; 0: none.
  int take() const;

  // In a child process: the signals do there what they do in any other.
  static void forget();

 private:
  sigset_t before_ = {};
  base::FileDescriptor descriptor_;
};

}  // namespace fwmodule

#endif
