// SPDX-License-Identifier: Apache-2.0
// A process of the soak that requests updates, one after the other, until there are
// none left, and tells what came of each and what it uses itself.
#ifndef TESTS_SOAK_WORKER_H
#define TESTS_SOAK_WORKER_H

#include <sys/types.h>

#include <atomic>
#include <cstddef>

namespace soak {

// Shared by all processes.
struct Orders {
  std::atomic<long> left{0};  // updates that are still to be requested
};

enum class Kind { Update, Fail, Throw, Current, Late, Package, Procedure, Usb };
inline constexpr const char* kKindNames[] = {"ordinary",      "failing",           "throwing",
                                             "not needed",    "too slow",          "from a package",
                                             "own procedure", "from a USB package"};
inline constexpr std::size_t kKindCount = sizeof kKindNames / sizeof kKindNames[0];

// What a process uses, at one moment at which none of its updates is under way.
struct Use {
  std::size_t heapBytes = 0;  // allocated and not freed
  std::size_t keptBytes = 0;  // of these, what the library keeps on purpose
  std::size_t residentKib = 0;
  int descriptors = 0;
  int threads = 0;
};

// One datagram to the program that started the worker.
struct Word {
  int slot = 0;
  pid_t process = 0;
  Kind kind = Kind::Update;
  int result = 0;
  bool expected = true;     // the result is the one that this kind of request must have
  bool lateNotice = false;  // the library missed the end and waited out its limit
  bool last = false;        // all is done; no request
  Use use;
};

// Does not return. channel: a socket of datagrams.
[[noreturn]] void work(int slot, unsigned int seed, Orders& orders, int channel);

}  // namespace soak

#endif
