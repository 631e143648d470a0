// SPDX-License-Identifier: Apache-2.0
// The source that the configuration names. Stateless.
#ifndef FW_FLEET_CHOSEN_SOURCE_H
#define FW_FLEET_CHOSEN_SOURCE_H

#include <memory>
#include <string>

#include "installer.h"
#include "source.h"

namespace fleet {

// installer: outlives the source; model: of the set.
std::unique_ptr<Source> chosenSource(const Configuration& configuration, const std::string& token,
                                     const std::string& model, Installer& installer);

}  // namespace fleet

#endif
