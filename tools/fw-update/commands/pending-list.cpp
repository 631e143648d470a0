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

}  // namespace

Report runPendingList(const Options&) {
  Report report;
  report.details["path"] = fwpaths::kPendingList;
  report.details["modules"] = Json::arrayValue;
  const Library library = openLibrary();
  if (library.problem) {
    report.finding = *library.problem;
    return report;
  }

  const std::size_t mark = LibraryLog::instance().mark();
  try {
    const int result = writeList(mark);
    const LogMessages messages = LibraryLog::instance().since(mark);
    const Rows rows = found(messages);
    report.finding = explain(result, messages, rows);
    Rows shown{{"LIBRARY", "PACKAGE"}};
    for (const auto& row : rows) {
      Json::Value module;
      module["library"] = row[0];
      module["package"] = row[1];
      report.details["modules"].append(module);
      shown.push_back(row);
    }
    if (!rows.empty()) {
      report.body = table(shown, terminalWidth(STDOUT_FILENO));
    }
  } catch (const std::exception& error) {
    report.finding = {Outcome::ModuleFailed,
                      std::string("A module broke off with an error of its own: ") + error.what() +
                          ". The list is incomplete.",
                      "Install a version of the module that fits this device, or remove it."};
  }
  return report;
}

}  // namespace tool
