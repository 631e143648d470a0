// SPDX-License-Identifier: Apache-2.0
// Lets a test act within the reads at a place of a file (pread) that a program makes. A test
// program that links this takes the place of that function of the C library; all pass
// through unless a test says otherwise. For one thread.
#ifndef TESTS_SUPPORT_READ_CALLS_H
#define TESTS_SUPPORT_READ_CALLS_H

#include <cstddef>
#include <functional>

namespace readcalls {

// No call gives more bytes.
extern std::size_t largest;
// Called before a read at this place of the file. An errno value lets it fail.
extern std::function<int(std::size_t offset)> before;
// Called after it.
extern std::function<void(std::size_t offset)> after;

void reset();

}  // namespace readcalls

#endif
