// SPDX-License-Identifier: Apache-2.0
// How a library of the coverage build tells its counters to the program that uses it.
#ifndef COVERAGE_EXIT_H
#define COVERAGE_EXIT_H

struct CoverageCounters {
  void (*const write)();
  void (*const restart)();
};

// For libraries that stay in the process until its end.
extern "C" __attribute__((visibility("default"))) void fw_coverage_add(const CoverageCounters* counters);

#endif
