// SPDX-License-Identifier: Apache-2.0
// What the service is at, as a JSON document for those who ask it, and for people. Stateless.
#ifndef FW_FLEET_STATUS_H
#define FW_FLEET_STATUS_H

#include <json/value.h>

#include <ctime>
#include <optional>
#include <string>

#include "agent.h"

namespace fleet {

Json::Value statusOf(const Agent& agent, const Configuration& configuration, std::time_t now);
// Nothing when the text is no such document.
std::optional<Json::Value> statusIn(const std::string& text);
// For people.
std::string textOf(const Json::Value& status, std::time_t now);

}  // namespace fleet

#endif
