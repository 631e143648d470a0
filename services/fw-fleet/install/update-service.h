// SPDX-License-Identifier: Apache-2.0
// The update service as what brings artifacts into components: files are handed over to it as open
// descriptors, and its jobs are followed. A connection to the bus for each operation, so that a bus
// or a service that starts anew is found again.
#ifndef FW_FLEET_UPDATE_SERVICE_H
#define FW_FLEET_UPDATE_SERVICE_H

#include <cstdint>
#include <string>

#include "installer.h"

namespace fleet {

class UpdateService : public Installer {
 public:
  // bus: an address; empty: the system bus.
  explicit UpdateService(std::string bus = {});

  std::optional<std::string> versionOf(const std::string& component) override;
  std::map<std::string, std::string> versions() override;
  HandedOver ask(const std::string& component, Kind kind, const std::vector<InstallFile>& files) override;
  std::uint64_t lastEnded(const std::string& component) override;
  Followed follow(const std::string& component, std::uint64_t after,
                  std::chrono::milliseconds patience) override;

 private:
  const std::string bus_;
};

}  // namespace fleet

#endif
