// SPDX-License-Identifier: Apache-2.0
// Asks the privileged service. Any thread; every request has a connection of its own.
#ifndef PLATFORM_LINUX_PRIVILEGED_CLIENT_H
#define PLATFORM_LINUX_PRIVILEGED_CLIENT_H

#include <string_view>

#include "privileged/privileged-protocol.h"

namespace fwplatform {

// How long a client waits for the service, from connecting to the answer.
inline constexpr int kPrivilegedPatienceMs = 30000;

// 0 with the service's answer, or a negative errno value:
//   -ENOENT, -ECONNREFUSED  no service is there
//   -ETIMEDOUT              no answer in time; the service drops the request
//   -ECONNRESET             the service ended before it answered
//   -EPROTO                 the answer makes no sense
int askPrivilegedService(PrivilegedOperation operation, std::string_view text, int patienceMs,
                         PrivilegedAnswer& answer);

}  // namespace fwplatform

#endif
