// Who may ask for an update, as --caller spells it: the facade's call, the value
// that the module sees and where that requester's images come from.
#ifndef FW_UPDATE_TOOL_CALLERS_H
#define FW_UPDATE_TOOL_CALLERS_H

#include <string_view>

#include "fw-update-control.h"

namespace tool {

struct Caller {
  const char* name;
  int (FWUpdateContorl::*update)(const char* name, const char* data);
  CallerTypes type;
  const char* fixedData;  // sent instead of --data; null when --data is sent
  const char* images;
};

inline constexpr Caller kCallers[] = {
    {"factory", &FWUpdateContorl::fw_update_from_factory, CALLER_FACTORY, nullptr,
     "a USB drive mounted at /opt/media/USBDriveA"},
    {"debug", &FWUpdateContorl::fw_update_from_debug, CALLER_DEBUG, nullptr,
     "extension package; USB drive with --data USB"},
    {"factory-automation", &FWUpdateContorl::fw_update_from_factory_automation, CALLER_UPGRADE_APP,
     "FACTORY_AUTOMATION", "/lib/firmware/ext, with fixed data"},
    {"upgrade-app", &FWUpdateContorl::fw_update_from_upgrade_app, CALLER_UPGRADE_APP, nullptr,
     "/lib/firmware/ext (the default caller)"},
    {"lsm", &FWUpdateContorl::fw_update_from_lsm, CALLER_LSM, nullptr, "/opt/usr/share/sbox"},
    {"epsolution", &FWUpdateContorl::fw_update_from_upgrade_epsolution, CALLER_UPGRADE_EPSOLUTION, nullptr,
     "/lib/firmware/ext"},
};

inline constexpr const char* kDefaultCaller = "upgrade-app";

// Null when there is no such caller.
constexpr const Caller* findCaller(std::string_view name) {
  for (const Caller& caller : kCallers) {
    if (name == caller.name) {
      return &caller;
    }
  }
  return nullptr;
}

}  // namespace tool

#endif
