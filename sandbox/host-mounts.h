// SPDX-License-Identifier: Apache-2.0
// Puts the host's files and directories into a device. What is shown cannot be changed
// there, whoever the caller is: neither it nor what is mounted below it. For enterDevice
// alone, in the private namespace.
#ifndef SANDBOX_HOST_MOUNTS_H
#define SANDBOX_HOST_MOUNTS_H

#include <string>

namespace sandbox {

// source takes the place of target, with all that is mounted below it; target must be
// there. Both throw std::system_error.
void showReadOnly(const std::string& source, const std::string& target);
// The same, but what is written there reaches source.
void showWritable(const std::string& source, const std::string& target);

}  // namespace sandbox

#endif
