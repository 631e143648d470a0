// SPDX-License-Identifier: Apache-2.0
#include "fuzz-target.h"

#include <cstdio>
#include <cstdlib>

void fuzz::require(bool holds, const char* promise) {
  if (!holds) {
    std::fprintf(stderr, "a promise is broken: %s\n", promise);
    std::abort();
  }
}
