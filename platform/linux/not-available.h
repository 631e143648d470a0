// SPDX-License-Identifier: Apache-2.0
// One clear line, the first time a process asks for something that this platform
// does not have. Any thread.
#ifndef PLATFORM_LINUX_NOT_AVAILABLE_H
#define PLATFORM_LINUX_NOT_AVAILABLE_H

#include <atomic>

#include "dlog.h"

namespace fwplatform {

// alreadySaid: static to the caller, one per thing that is not available.
inline void LogNotAvailableOnce(std::atomic_flag& alreadySaid, const char* text) {
  if (!alreadySaid.test_and_set()) {
    __dlog_print(2, DLOG_WARN_PRIORITY, "FWUPDATE", "%s", text);
  }
}

}  // namespace fwplatform

#endif
