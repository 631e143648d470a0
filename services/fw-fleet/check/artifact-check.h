// SPDX-License-Identifier: Apache-2.0
// What the artifacts of a component are, and whether they are signed for it and this set. The update
// service looks at its own copy once more; here it is known before any component of an action is touched.
// Stateless.
#ifndef FW_FLEET_ARTIFACT_CHECK_H
#define FW_FLEET_ARTIFACT_CHECK_H

#include <optional>
#include <string>
#include <vector>

#include "agent.h"
#include "installer.h"

namespace fleet {

// None: the files are nothing that a component can be updated with.
std::optional<Kind> kindOf(const std::vector<InstallFile>& files);

// By their signatures.
Checked checkArtifacts(const std::string& component, const std::vector<InstallFile>& files);

}  // namespace fleet

#endif
