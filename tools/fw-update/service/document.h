// SPDX-License-Identifier: Apache-2.0
// A report from the document that another process made of one. Plain functions.
#ifndef FW_UPDATE_TOOL_DOCUMENT_H
#define FW_UPDATE_TOOL_DOCUMENT_H

#include <json/value.h>

#include <string>

#include "frame/report.h"

namespace tool {

// How asking a service can end, beside how its work does.
enum class ServiceOutcome { Interrupted, NoService, TooLate };

inline constexpr frame::OutcomeInfo kServiceOutcomes[] = {
    {"interrupted", 1, nullptr, frame::Tone::Failure},
    {"no-service", 1, nullptr, frame::Tone::Failure},
    {"too-late", 1, nullptr, frame::Tone::Failure},
};

constexpr const frame::OutcomeInfo& infoOf(ServiceOutcome outcome) {
  return kServiceOutcomes[static_cast<std::size_t>(outcome)];
}

// Null when it is none.
Json::Value parsedDocument(const std::string& text);

// command: what it is the document of; its table is drawn anew.
frame::Report reportOf(Json::Value document, const std::string& command);

}  // namespace tool

#endif
