// SPDX-License-Identifier: Apache-2.0
// Takes what clients hand over, in a process of its own, one after the other: copying and checking
// may take long, and what is read may be held up by somebody. One thread.
#ifndef FW_UPDATED_INTAKE_H
#define FW_UPDATED_INTAKE_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <list>

#include "event-loop.h"
#include "file-descriptor.h"
#include "hand-over.h"
#include "taking.h"

namespace updated {

class Intake {
 public:
  using Then = std::function<void(const Taken& taken)>;
  // Asked when its turn has come: an error, when it cannot be taken now.
  using Problem = std::function<Taken()>;

  // patience: how long the copying and checking of one may take.
  explicit Intake(EventLoop& loop, std::chrono::milliseconds patience = std::chrono::minutes(30))
      : loop_(loop), patienceTime_(patience) {}
  // Ends what is at work; what it left is found at the next start.
  ~Intake();
  Intake(const Intake&) = delete;
  Intake& operator=(const Intake&) = delete;

  // then: once; not before this has returned, unless too many wait already.
  void take(HandOver handOver, Problem problem, Then then);

 private:
  struct Turn {
    HandOver handOver;
    Problem problem;
    Then then;
  };

  void startNext();
  int start(const HandOver& handOver);
  void ended();
  void finish(const Taken& taken);

  EventLoop& loop_;
  const std::chrono::milliseconds patienceTime_;
  std::list<Turn> turns_;  // the first is at work
  pid_t process_ = -1;
  base::FileDescriptor answer_;
  Source next_;
  Source ending_;
  Source patience_;
};

}  // namespace updated

#endif
