// SPDX-License-Identifier: Apache-2.0
// What signals must not do to a program in the middle of something, and what they may.
#ifndef FW_BASE_SIGNAL_GUARDS_H
#define FW_BASE_SIGNAL_GUARDS_H

#include <signal.h>

namespace base {

// Whether the signal is ignored, as under nohup: a program that handles it otherwise
// leaves it so then.
bool isIgnored(int signal);

// For one thread, as long as it lives: signals wait.
class SignalsLater {
 public:
  SignalsLater();
  SignalsLater(const SignalsLater&) = delete;
  SignalsLater& operator=(const SignalsLater&) = delete;
  ~SignalsLater();

 private:
  sigset_t before_ = {};
};

// For one thread, as long as it lives: writing where nobody reads is an error and no more.
// The signal that such a write raises is taken back; one that was pending before stays.
class HoldBackSigpipe {
 public:
  HoldBackSigpipe();
  HoldBackSigpipe(const HoldBackSigpipe&) = delete;
  HoldBackSigpipe& operator=(const HoldBackSigpipe&) = delete;
  ~HoldBackSigpipe();

 private:
  sigset_t sigpipe_ = {};
  sigset_t before_ = {};
  bool wasPending_;
};

}  // namespace base

#endif
