// SPDX-License-Identifier: Apache-2.0
// Part of each library of the coverage build whose counters are of interest.
#include <dlfcn.h>

#include "exit.h"

extern "C" void __gcov_dump();
extern "C" void __gcov_reset();

namespace {

// Programs of others do not know it; they write the counters when they end by exit.
[[gnu::constructor]] void addCounters() {
  static constexpr CoverageCounters kCounters{__gcov_dump, __gcov_reset};
  if (void* const add = dlsym(RTLD_DEFAULT, "fw_coverage_add"); add != nullptr) {
    reinterpret_cast<decltype(&fw_coverage_add)>(add)(&kCounters);
  }
}

}  // namespace
