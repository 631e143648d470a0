// SPDX-License-Identifier: Apache-2.0
#include "deadline.h"

#include <poll.h>

#include <cerrno>

namespace base {

Deadline::Deadline(int milliseconds)
    : endless_(milliseconds < 0), end_(Clock::now() + std::chrono::milliseconds(milliseconds)) {}

int Deadline::leftMs() const {
  if (endless_) {
    return -1;
  }
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

int Deadline::waitToRead(int descriptor) const {
  pollfd waited = {descriptor, POLLIN, 0};
  int ready = 0;
  do {
    ready = poll(&waited, 1, leftMs());
  } while (ready < 0 && errno == EINTR);
  return ready;
}

}  // namespace base
