// SPDX-License-Identifier: Apache-2.0
#include "service/document.h"

#include <json/reader.h>

#include <algorithm>
#include <iterator>
#include <memory>

#include "commands/texts.h"
#include "outcomes.h"
#include "report.h"

namespace tool {
namespace {

constexpr struct {
  const char* command;
  std::string (*text)(const frame::Report& report);
} kTexts[] = {
    {"list", listText},
    {"pending", pendingText},
    {"update-all", updateAllText},
    {"usb estimate", usbText},
    {"usb apply", usbText},
    {"download", downloadText},
    {"lock status", lockStatusText},
    {"history", historyText},
    {"history show", historyShowText},
};

// What a report has besides its details.
constexpr const char* kFrame[] = {"command", "event", "ok", "outcome", "exitCode", "message", "remedy"};

template <typename Table>
const frame::OutcomeInfo* find(const Table& table, const std::string& id) {
  const auto* const row = std::find_if(std::begin(table), std::end(table),
                                       [&id](const auto& outcome) { return id == outcome.id; });
  return row == std::end(table) ? nullptr : row;
}

frame::Ending endingOf(const std::string& id) {
  if (const auto* const row = find(kOutcomeTable, id)) {
    return static_cast<Outcome>(row - std::begin(kOutcomeTable));
  }
  if (const auto* const row = find(kServiceOutcomes, id)) {
    return static_cast<ServiceOutcome>(row - std::begin(kServiceOutcomes));
  }
  return Outcome::Unexpected;
}

}  // namespace

Json::Value parsedDocument(const std::string& text) {
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value document;
  try {
    const bool isRead = reader->parse(text.data(), text.data() + text.size(), &document, nullptr);
    return isRead && document.isObject() ? document : Json::Value();
  } catch (const Json::Exception&) {  // too deep
    return {};
  }
}

frame::Report reportOf(Json::Value document, const std::string& command) {
  frame::Report report(endingOf(textIn(document, "outcome")), textIn(document, "message"),
                       textIn(document, "remedy"));
  for (const char* const member : kFrame) {
    document.removeMember(member);
  }
  report.details = std::move(document);
  for (const auto& row : kTexts) {
    if (command == row.command) {
      report.body = row.text(report);
    }
  }
  const Json::Value& details = report.details;
  for (const Json::Value& warning : details["warnings"]) {
    report.remarks.push_back("warning: " + warning.asString());
  }
  return report;
}

}  // namespace tool
