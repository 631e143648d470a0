// SPDX-License-Identifier: Apache-2.0
// What the calling process holds: its open files and its threads, to find what a module
// leaves behind.
#ifndef FW_MODULE_CHECK_CENSUS_H
#define FW_MODULE_CHECK_CENSUS_H

#include <cstddef>
#include <map>
#include <string>

namespace fwmodule {

struct Census {
  std::map<int, std::string> descriptors;  // and what each refers to
  std::size_t threads = 0;
};

Census takeCensus();

// The same, when there are no more threads than before or a while has gone by: one that
// has been joined may still be on its way out.
Census takeCensusAfter(const Census& before);

// What was opened since, and is still open: "" or "/a, /b".
std::string openedSince(const Census& before, const Census& after);

}  // namespace fwmodule

#endif
