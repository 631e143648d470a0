// SPDX-License-Identifier: Apache-2.0
// The versions below which a set refuses packages: one small file for each name, replaced
// safely, and never lowered. Written by root, read by everybody. Safe from any thread
// and process.
#ifndef FW_PLATFORM_MINIMUM_VERSIONS_H
#define FW_PLATFORM_MINIMUM_VERSIONS_H

#include <string>

#include "package-trailer.h"

namespace fwpackage {

inline constexpr char kMinimumVersionDirectory[] = "/var/lib/fw-update/minimum-versions";

struct MinimumVersion {
  // Unusable: it cannot be read, or is damaged. Who asks then refuses.
  enum class State { None, Known, Unusable };

  State state = State::None;
  std::string version;
};

MinimumVersion readMinimumVersion(const std::string& directory, const std::string& name);

// Notes what the statements of an applied package say, if it is more than what is noted;
// on the disk when this returns. 0 or an errno value: EBADMSG when what is noted is
// damaged, and then it stays.
int raiseMinimumVersion(const std::string& directory, const Statements& statements);

}  // namespace fwpackage

#endif
