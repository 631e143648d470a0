// SPDX-License-Identifier: Apache-2.0
// The tables that commands show, drawn from what their documents say: so a document that comes
// from elsewhere looks as one of this process. Each is empty when there is nothing to draw.
#ifndef FW_UPDATE_TOOL_TEXTS_H
#define FW_UPDATE_TOOL_TEXTS_H

#include <string>

#include "frame/report.h"

namespace tool {

std::string listText(const frame::Report& report);
std::string pendingText(const frame::Report& report);
std::string updateAllText(const frame::Report& report);
std::string usbText(const frame::Report& report);
std::string downloadText(const frame::Report& report);
std::string lockStatusText(const frame::Report& report);
std::string historyText(const frame::Report& report);
std::string historyShowText(const frame::Report& report);

}  // namespace tool

#endif
