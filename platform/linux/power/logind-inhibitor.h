// SPDX-License-Identifier: Apache-2.0
// Asks systemd-logind over the system bus to keep the device on. Stateless; any
// thread. The inhibitor is the descriptor: the kernel closes it with the process.
#ifndef PLATFORM_LINUX_LOGIND_INHIBITOR_H
#define PLATFORM_LINUX_LOGIND_INHIBITOR_H

#include <string>

#include "file-descriptor.h"

namespace fwplatform {

// Longest time that the bus and logind together get for their answer. Where both are there but
// busy, seconds are not rare; one that hangs holds a run over all modules up only once.
constexpr int kLogindPatienceMs = 10000;

// Blocks shutdown, sleep and idle until inhibitor is closed. 0, or a negative
// errno value: -ETIMEDOUT when no answer came within kLogindPatienceMs.
int takeLogindInhibitor(const std::string& why, base::FileDescriptor& inhibitor);

}  // namespace fwplatform

#endif
