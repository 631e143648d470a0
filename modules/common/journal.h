// SPDX-License-Identifier: Apache-2.0
// The journal that all components share: one line for each event
// (docs/formats/component-flash.md). May be called from any thread and process.
#ifndef MODULES_COMMON_JOURNAL_H
#define MODULES_COMMON_JOURNAL_H

#include <string>

namespace fwcomponent {

// Appends time, process and component in front of event. False when the line
// could not be written; an update goes on without it.
bool appendToJournal(const std::string& component, const std::string& event) noexcept;

}  // namespace fwcomponent

#endif
