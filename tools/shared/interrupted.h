// SPDX-License-Identifier: Apache-2.0
// Carries a signal that ends the process (Ctrl-C and the like) to where it ends by it, so
// that what is unfinished is put away on the way there.
#ifndef TOOLS_SHARED_INTERRUPTED_H
#define TOOLS_SHARED_INTERRUPTED_H

#include <exception>

namespace tool {

class Interrupted : public std::exception {
 public:
  explicit Interrupted(int signal) : signal_(signal) {}
  int signal() const { return signal_; }
  const char* what() const noexcept override { return "interrupted"; }

 private:
  int signal_;
};

}  // namespace tool

#endif
