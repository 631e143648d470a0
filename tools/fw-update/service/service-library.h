// SPDX-License-Identifier: Apache-2.0
#ifndef FW_UPDATE_TOOL_SERVICE_LIBRARY_H
#define FW_UPDATE_TOOL_SERVICE_LIBRARY_H

#include <memory>
#include <string>

#include "service/service-client.h"

namespace tool {

// Loads the library beside this program, which stays loaded. Throws frame::Failure when there is
// none, BusError when there is no bus.
std::unique_ptr<ServiceClient> openService(const std::string& bus);

}  // namespace tool

#endif
