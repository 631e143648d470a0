// fw-update pending
#include <unistd.h>

#include <algorithm>
#include <array>
#include <exception>

#include "commands.h"
#include "library-messages.h"
#include "library/library.h"
#include "library/log-meanings.h"
#include "terminal.h"

namespace tool {
namespace {

bool contains(const std::list<FWUpdateItem>& items, const std::string& name) {
  return std::any_of(items.begin(), items.end(), [&](const auto& item) { return name == item.file_name; });
}

Finding reasonOf(const Library& library, const LogMessages& all, const std::string& module, bool pending) {
  if (const auto problem = bindingProblem(library, module)) {
    return *problem;
  }
  if (pending) {
    return {Outcome::Ok, "A new image is ready.", "fw-update update " + module};
  }
  if (kindOf(module) == std::string("EXT")) {
    return {Outcome::NothingToDo, "It runs its own procedure and is never pending; update starts it.", ""};
  }
  if (const auto finding = strongestMeaning(checkOf(all, module), module)) {
    return *finding;
  }
  return {Outcome::ModuleFailed, module + " answered neither yes nor no.", ""};
}

const char* answerOf(const Finding& reason) {
  if (reason.outcome == Outcome::Ok) {
    return "yes";
  }
  return reason.outcome == Outcome::NothingToDo ? "no" : "refused";
}

Json::Value moduleJson(const FWUpdateItem& item, bool pending, const Finding& reason) {
  Json::Value module;
  module["library"] = item.file_name;
  module["firmware"] = item.fw_name;
  module["version"] = item.version;
  module["pending"] = pending;
  module["outcome"] = pending ? "pending" : infoOf(reason.outcome).id;
  module["reason"] = reason.message;
  if (!reason.remedy.empty()) {
    module["remedy"] = reason.remedy;
  }
  return module;
}

void describe(Report& report, const Library& library, const std::list<FWUpdateItem>& pending,
              const LogMessages& messages) {
  std::vector<std::vector<std::string>> rows{{"LIBRARY", "FIRMWARE", "VERSION", "PENDING", "REASON"}};
  for (const FWUpdateItem& item : library.items) {
    const bool due = contains(pending, item.file_name);
    const Finding reason = reasonOf(library, messages, item.file_name, due);
    rows.push_back({item.file_name, item.fw_name, item.version, answerOf(reason), reason.message});
    report.details["modules"].append(moduleJson(item, due, reason));
  }
  report.body = library.items.empty() ? "" : table(rows, terminalWidth(STDOUT_FILENO));
}

// The module whose turn it was when the query broke off.
Finding brokeOff(const LogMessages& messages, const std::string& what) {
  std::string module = "A module";
  for (const LogMessage& message : messages) {
    if (message.format == MESSAGE_CHECK_BEGINS && !message.arguments.empty()) {
      module = message.arguments[0];
    }
  }
  return {Outcome::ModuleFailed, module + " broke off with an error of its own: " + what + ".",
          "Install a version of the module that fits this device, or remove it."};
}

}  // namespace

Report runPending(const Options& options) {
  Report report;
  report.details["caller"] = options.caller->name;
  report.details["modules"] = Json::arrayValue;
  const Library library = openLibrary();
  if (library.problem) {
    report.finding = *library.problem;
    return report;
  }

  const LibraryLog& log = LibraryLog::instance();
  const std::size_t mark = log.mark();
  std::array<char, 128> data{};
  options.requestData().copy(data.data(), data.size() - 1);
  try {
    const auto pending = library.facade->fw_getUpdateItemList(options.caller->type, data.data());
    describe(report, library, pending, log.since(mark));
    report.finding = {Outcome::Ok,
                      std::to_string(pending.size()) + " of " + std::to_string(library.items.size()) +
                          " modules need an update.",
                      ""};
    if (pending.empty()) {
      report.finding = {Outcome::NothingToDo, "No module needs an update.", ""};
    }
  } catch (const std::exception& error) {
    report.finding = brokeOff(log.since(mark), error.what());
  }
  return report;
}

}  // namespace tool
