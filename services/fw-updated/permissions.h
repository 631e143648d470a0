// SPDX-License-Identifier: Apache-2.0
// What clients of the update service may be permitted to do. Constants.
#ifndef FW_UPDATED_PERMISSIONS_H
#define FW_UPDATED_PERMISSIONS_H

#include <cstddef>

#include "access.h"

namespace updated {

using service::Access;
using service::Client;

// Its members may ask for updates where polkit does not run.
inline constexpr char kGroup[] = "fwupdate";

enum class Action { Query, Update, Usb, Cancel, Configure, Consent, UpdateFrom };

// In the order of the enumeration.
inline constexpr service::Permission kPermissions[] = {
    {"org.fwupdate.update1.query", "ask about updates", true, kGroup},
    {"org.fwupdate.update1.update", "update modules", false, kGroup},
    {"org.fwupdate.update1.usb", "use packages of a USB drive", false, kGroup},
    {"org.fwupdate.update1.cancel", "cancel the jobs of others", false, kGroup},
    {"org.fwupdate.update1.configure", "change the service's settings", false, "fwupdate-admin"},
    {"org.fwupdate.update1.consent", "consent to updates", false, kGroup},
    {"org.fwupdate.update1.update-from", "hand over what modules are updated from", false, "fwupdate-fleet",
     8},
};

constexpr const service::Permission& permissionFor(Action action) {
  return kPermissions[static_cast<std::size_t>(action)];
}

}  // namespace updated

#endif
