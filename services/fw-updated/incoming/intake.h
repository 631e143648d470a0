// SPDX-License-Identifier: Apache-2.0
// Takes what clients hand over, in a process of its own, one after the other: copying and checking
// may take long, and what is read may be held up by somebody. One thread.
#ifndef FW_UPDATED_INTAKE_H
#define FW_UPDATED_INTAKE_H

#include <sys/types.h>

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

  explicit Intake(EventLoop& loop) : loop_(loop) {}
  // Ends what is at work; what it left is found at the next start.
  ~Intake();
  Intake(const Intake&) = delete;
  Intake& operator=(const Intake&) = delete;

  // then: once, and not before this has returned.
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
  std::list<Turn> turns_;  // the first is at work
  pid_t process_ = -1;
  base::FileDescriptor answer_;
  Source next_;
  Source ending_;
  Source patience_;
};

}  // namespace updated

#endif
