// SPDX-License-Identifier: Apache-2.0
#include "chosen-source.h"

#include "ddi-source.h"
#include "device-policy.h"
#include "list-source.h"

namespace fleet {

std::unique_ptr<Source> chosenSource(const Configuration& configuration, const std::string& token,
                                     const std::string& model, Installer& installer) {
  if (configuration.source == SourceType::Server) {
    return std::make_unique<DdiSource>(configuration, token);
  }
  ListParts parts;
  parts.model = model;
  parts.versions = [&installer] { return installer.versions(); };
  parts.clock = [] { return std::time(nullptr); };
  parts.trust = fwpackage::trustOfDevice();
  return std::make_unique<ListSource>(configuration, token, std::move(parts));
}

}  // namespace fleet
