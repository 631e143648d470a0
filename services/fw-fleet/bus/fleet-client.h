// SPDX-License-Identifier: Apache-2.0
// The fleet's client as the commands ask it. Stateless; every operation throws FleetAway or FleetRefused.
#ifndef FW_FLEET_FLEET_CLIENT_H
#define FW_FLEET_FLEET_CLIENT_H

#include <stdexcept>
#include <string>

namespace fleet {

// It does not run, or there is no bus. what() is a sentence, as with the next.
struct FleetAway : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct FleetRefused : std::runtime_error {
  FleetRefused(const std::string& sentence, bool mayNot)
      : std::runtime_error(sentence), isNotPermitted(mayNot) {}
  bool isNotPermitted;  // to this user
};

// bus: an address; empty: the system bus. A JSON document.
std::string askStatus(const std::string& bus);
void askForPoll(const std::string& bus);
void giveConsent(const std::string& bus, const std::string& action, const std::string& answer);

}  // namespace fleet

#endif
