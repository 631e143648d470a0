// SPDX-License-Identifier: Apache-2.0
// Where traces are kept and how large they may grow: what this platform lets its
// integrator choose, by environment variables. Plain data; any thread.
#ifndef PLATFORM_LINUX_TRACE_SETTINGS_H
#define PLATFORM_LINUX_TRACE_SETTINGS_H

#include <cstdint>
#include <string>

namespace fwplatform::trace {

inline constexpr char kDefaultDirectory[] = "/run/fw-trace";

struct Settings {
  std::string directory = kDefaultDirectory;  // empty: no trace is kept
  std::uint32_t threadKib = 256;              // a thread's ring
  std::uint32_t threads = 16;                 // rings of one process at most
  std::uint32_t totalMib = 32;                // all files of the directory
  std::uint32_t days = 7;                     // age of a file
};

// From the environment; a value that is no number or out of range keeps its
// default. A program with raised privileges ignores the environment.
Settings settingsFromEnvironment();

}  // namespace fwplatform::trace

#endif
