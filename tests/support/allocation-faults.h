// SPDX-License-Identifier: Apache-2.0
// Lets chosen allocations fail. A test program that has this source takes the place
// of malloc, calloc and the making of cipher contexts; all pass through unless a
// test says otherwise. What fails is chosen while no other thread runs.
#ifndef ALLOCATION_FAULTS_H
#define ALLOCATION_FAULTS_H

#include <atomic>
#include <cstddef>

namespace faults {

// False under valgrind, which puts an allocator of its own in this one's place.
bool canFailAllocations();

// Allocations of exactly this size fail while it is not 0.
extern std::size_t failingMallocSize;
extern std::size_t failingCallocSize;  // count times size

extern bool failCipherContexts;
extern std::atomic<int> cipherContextsMade;
extern std::atomic<int> cipherContextsFreed;

}  // namespace faults

#endif
