// SPDX-License-Identifier: Apache-2.0
// This process as one that another watches over: what it tells. Everything here does
// nothing in a process that is not. Any thread.
#ifndef FW_UPDATE_TOOL_SUPERVISED_H
#define FW_UPDATE_TOOL_SUPERVISED_H

#include <string>

#include "isolation/child-record.h"

namespace tool {
struct LogMessage;
}

namespace tool::supervised {

// From now on this process is, and tells it there. To be called once, before anything else;
// the record has to last.
void begin(ChildRecord& record);
bool isSupervised();

// A step of a module is about to begin. module: its library name, empty when it may be any;
// firmware: its firmware name, when known.
void tellStep(Step step, const std::string& module, const std::string& firmware = "");
// The library has logged.
void tellMessage(const LogMessage& message);
// The module is asked for its progress, beside everything else; or has answered.
void tellProgress(bool isAsked);
// The result is out.
void tellResult(int exitCode);

}  // namespace tool::supervised

#endif
