// SPDX-License-Identifier: Apache-2.0
#include "fleet-client.h"

#include <sdbus-c++/sdbus-c++.h>

#include <memory>

#include "fleet-bus.h"

namespace fleet {
namespace {

// What it is asked it answers from what it has, but for what it has to keep.
constexpr std::uint64_t kPatienceUs = 90'000'000;

// Nobody has its name, and nobody is started for it.
bool isAbsent(const sdbus::Error& error) {
  return error.getName() == "org.freedesktop.DBus.Error.ServiceUnknown" ||
         error.getName() == "org.freedesktop.DBus.Error.NameHasNoOwner";
}

template <typename Call>
auto asking(const std::string& bus, const Call& call) {
  try {
    const auto connection =
        bus.empty() ? sdbus::createSystemBusConnection() : sdbus::createSessionBusConnectionWithAddress(bus);
    connection->setMethodCallTimeout(kPatienceUs);
    const auto proxy = sdbus::createProxy(*connection, kBusName, kBusPath);
    return call(*proxy);
  } catch (const sdbus::Error& error) {
    if (error.getName().rfind(std::string(kBusName) + ".", 0) == 0) {
      throw FleetRefused(error.getMessage(),
                         error.getName() == std::string(kBusName) + ".Error.NotPermitted");
    }
    throw FleetAway(isAbsent(error) ? "fw-fleet does not run."
                                    : "fw-fleet cannot be asked: " + error.getMessage() + ".");
  }
}

}  // namespace

std::string askStatus(const std::string& bus) {
  return asking(bus, [](sdbus::IProxy& proxy) {
    std::string document;
    proxy.callMethod("Status").onInterface(kBusName).storeResultsTo(document);
    return document;
  });
}

void askForPoll(const std::string& bus) {
  asking(bus, [](sdbus::IProxy& proxy) { proxy.callMethod("Poll").onInterface(kBusName); });
}

void giveConsent(const std::string& bus, const std::string& action, const std::string& answer) {
  asking(bus, [&](sdbus::IProxy& proxy) {
    proxy.callMethod("Consent").onInterface(kBusName).withArguments(action, answer);
  });
}

}  // namespace fleet
