// SPDX-License-Identifier: Apache-2.0
// A real second process that changes one byte of a file when it is told to: by write,
// which changes the file's times, or in a shared mapping, which does not. To be started
// while the test has one thread.
#ifndef CHANGING_PROCESS_H
#define CHANGING_PROCESS_H

#include <sys/types.h>

#include <memory>
#include <string>

#include "child-process.h"

class ChangingProcess {
 public:
  explicit ChangingProcess(const std::string& path);
  ~ChangingProcess();
  ChangingProcess(const ChangingProcess&) = delete;
  ChangingProcess& operator=(const ChangingProcess&) = delete;

  // Takes hold of the file that is at the path now. The mapping is written to, so that
  // a later write is not the first.
  void prepare();

  // Each returns when the byte has changed.
  void changeByWrite(off_t offset);
  void changeInMapping(off_t offset);

 private:
  struct Order {
    char what;
    off_t offset;
  };
  static int obey(const std::string& path, int orders, int answers);
  void give(Order order);

  int orders_[2];
  int answers_[2];
  std::unique_ptr<ChildProcess> process_;
};

#endif
