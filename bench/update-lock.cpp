// SPDX-License-Identifier: Apache-2.0
// The lock of the device under load: several processes that update the empty module as
// fast as they can.
// usage: bench-update-lock PROCESSES UPDATES
// UPDATES is their number together. Prints a JSON object: how long it took, how often
// the lock went from one process to another, and the longest request.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <stdexcept>

#include "fw-update-control.h"
#include "watched-request.h"

namespace {

using Clock = std::chrono::steady_clock;

// What all processes see.
struct Shared {
  std::atomic<int> ready{0};
  std::atomic<int> updating{0};
  std::atomic<int> last{0};
  std::atomic<long> handovers{0};
  std::atomic<long> overlaps{0};
  std::atomic<long> failures{0};
  std::atomic<std::int64_t> longestNs{0};
};

Shared& makeShared() {
  void* const memory =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    throw std::runtime_error("no shared memory");
  }
  return *new (memory) Shared;
}

void noteUpdate(Shared& shared) {
  if (shared.updating++ != 0) {
    ++shared.overlaps;
  }
  const int previous = shared.last.exchange(getpid());
  if (previous != 0 && previous != getpid()) {
    ++shared.handovers;
  }
  --shared.updating;
}

void noteLongest(Shared& shared, std::int64_t nanoseconds) {
  std::int64_t longest = shared.longestNs;
  while (nanoseconds > longest && !shared.longestNs.compare_exchange_weak(longest, nanoseconds)) {
  }
}

[[noreturn]] void update(Shared& shared, int processes, long updates) {
  FWUpdateContorl::getInstance();  // brings the modules up
  bench::onDoUpdate = [&shared] { noteUpdate(shared); };
  ++shared.ready;
  while (shared.ready <= processes) {  // the starting process is the last to be ready
    usleep(100);
  }
  for (long i = 0; i < updates; ++i) {
    const auto start = Clock::now();
    if (bench::requestUpdate() != 0) {
      ++shared.failures;
    }
    noteLongest(shared, std::chrono::nanoseconds(Clock::now() - start).count());
  }
  std::_Exit(0);
}

double seconds(Shared& shared, int processes, long updates) {
  for (int i = 0; i < processes; ++i) {
    if (fork() == 0) {
      update(shared, processes, updates / processes);
    }
  }
  while (shared.ready < processes) {
    usleep(100);
  }
  const auto start = Clock::now();
  ++shared.ready;
  while (wait(nullptr) > 0) {
  }
  return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  const int processes = argc == 3 ? std::atoi(argv[1]) : 0;
  const long updates = argc == 3 ? std::atol(argv[2]) : 0;
  if (processes < 1 || updates < processes) {
    std::fputs("usage: bench-update-lock PROCESSES UPDATES\n", stderr);
    return 2;
  }
  bench::enterDeviceWithEmptyModule();
  Shared& shared = makeShared();
  const double took = seconds(shared, processes, updates);
  std::printf(
      "{\"processes\": %d, \"updates\": %ld, \"seconds\": %.6f, \"handovers\": %ld, "
      "\"overlaps\": %ld, \"failures\": %ld, \"longest_ms\": %.3f}\n",
      processes, updates, took, shared.handovers.load(), shared.overlaps.load(), shared.failures.load(),
      static_cast<double>(shared.longestNs.load()) / 1e6);
  return shared.failures == 0 && shared.overlaps == 0 ? 0 : 1;
}
