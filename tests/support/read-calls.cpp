// SPDX-License-Identifier: Apache-2.0
#include "read-calls.h"

#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

namespace readcalls {

std::size_t largest = SIZE_MAX;
std::function<int(std::size_t)> before;
std::function<void(std::size_t)> after;

void reset() {
  largest = SIZE_MAX;
  before = nullptr;
  after = nullptr;
}

}  // namespace readcalls

extern "C" ssize_t pread(int file, void* to, std::size_t size, off_t offset) {
  const auto place = static_cast<std::size_t>(offset);
  if (const int error = readcalls::before ? readcalls::before(place) : 0; error != 0) {
    errno = error;
    return -1;
  }
  const iovec piece = {to, std::min(size, readcalls::largest)};
  const ssize_t count = preadv(file, &piece, 1, offset);
  if (readcalls::after) {
    readcalls::after(place);
  }
  return count;
}
