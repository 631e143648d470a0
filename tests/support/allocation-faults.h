// Lets chosen allocations fail. A test program that has this source takes the place
// of malloc, calloc and the making of cipher contexts; all pass through unless a
// test says otherwise. Not for several threads.
#ifndef ALLOCATION_FAULTS_H
#define ALLOCATION_FAULTS_H

#include <cstddef>

namespace faults {

// False with a memory checker, which has an allocator of its own.
bool canFailAllocations();

// Allocations of exactly this size fail while it is not 0.
extern std::size_t failingMallocSize;
extern std::size_t failingCallocSize;  // count times size

extern bool failCipherContexts;
extern int cipherContextsMade;
extern int cipherContextsFreed;

}  // namespace faults

#endif
