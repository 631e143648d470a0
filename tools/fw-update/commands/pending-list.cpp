// SPDX-License-Identifier: Apache-2.0
// fw-update pending-list
#include <fcntl.h>
#include <unistd.h>

#include <exception>

#include "commands.h"
#include "device-paths.h"
#include "fw-update-symbol-manager.h"
#include "library-messages.h"
#include "library/library.h"
#include "library/log-meanings.h"
#include "lock/interruption.h"
#include "report.h"
#include "terminal.h"
#include "whole-file.h"

namespace tool {
namespace {

using Rows = std::vector<std::vector<std::string>>;

// What the library found, which is not always what the file holds.
Rows found(const LogMessages& messages) {
  Rows rows;
  for (const LogMessage& message : messages) {
    if (message.format == MESSAGE_PENDING && message.arguments.size() == 2) {
      rows.push_back({message.arguments[0], message.arguments[1]});
    }
  }
  return rows;
}

std::string expectedText(const Rows& rows) {
  std::string text;
  for (const auto& row : rows) {
    text += row[0] + " " + row[1] + "\n";
  }
  return text;
}

// The library loses a list that cannot be opened or written without a word.
bool listHolds(const std::string& text) {
  std::string content;
  return base::readFileAt(AT_FDCWD, fwpaths::kPendingList, text.size(), content) == 0 && content == text;
}

Finding explain(int result, const LogMessages& messages, const Rows& rows) {
  if (result < 0) {
    return strongestMeaning(messages, "")
        .value_or(Finding{Outcome::Unexpected, "The list was not written.", "See the log (--log)."});
  }
  if (!listHolds(expectedText(rows))) {
    return {Outcome::Unexpected,
            std::string("The list could not be written to ") + fwpaths::kPendingList + ".",
            "Check that it is no directory, that this user may write it, and that /tmp has room."};
  }
  if (rows.empty()) {
    return {Outcome::Ok, std::string("No module needs an update; ") + fwpaths::kPendingList + " is empty.",
            ""};
  }
  return {Outcome::Ok, std::to_string(rows.size()) + " modules are in " + fwpaths::kPendingList + ".", ""};
}

// The first Ctrl-C stops the list at the next module; a second ends the tool.
int writeList(std::size_t mark) {
  bool running = true;
  const InterruptionGuard guard(mark, [&running] { __atomic_store_n(&running, false, __ATOMIC_RELAXED); });
  return FWUpdateSymbolManager::getInstance()->writeFirmwareUpdateList(running);
}

// Fills rows, unless a module breaks off.
Finding write(Rows& rows) {
  const std::size_t mark = LibraryLog::instance().mark();
  try {
    const int result = writeList(mark);
    const LogMessages messages = LibraryLog::instance().since(mark);
    rows = found(messages);
    return explain(result, messages, rows);
  } catch (const std::exception& error) {
    Finding finding = brokeOff("A module", error);
    finding.message += " The list is incomplete.";
    return finding;
  }
}

std::string tableOf(Rows rows) {
  if (rows.empty()) {
    return "";
  }
  rows.insert(rows.begin(), {"LIBRARY", "PACKAGE"});
  return table(rows, terminalWidth(STDOUT_FILENO));
}

}  // namespace

frame::Report runPendingList(const Options&) {
  const Library library = openLibrary();
  Rows rows;
  frame::Report report = reportOf(library.problem ? *library.problem : write(rows));
  report.body = tableOf(rows);
  report.details["path"] = fwpaths::kPendingList;
  report.details["modules"] = Json::arrayValue;
  for (const auto& row : rows) {
    Json::Value module;
    module["library"] = row[0];
    module["package"] = row[1];
    report.details["modules"].append(module);
  }
  return report;
}

}  // namespace tool
