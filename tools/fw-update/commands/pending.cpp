// SPDX-License-Identifier: Apache-2.0
// fw-update pending
#include <unistd.h>

#include <algorithm>
#include <array>
#include <exception>

#include "commands.h"
#include "commands/texts.h"
#include "library-messages.h"
#include "library/library.h"
#include "library/log-meanings.h"
#include "record/image-facts.h"
#include "report.h"
#include "terminal.h"

namespace tool {
namespace {

// Of updates; what states another one, or none, is a feature.
constexpr char kSecurity[] = "security";
constexpr char kFeature[] = "feature";

struct ModuleState {
  FWUpdateItem item;
  bool due = false;
  Finding reason;
};

bool contains(const std::list<FWUpdateItem>& items, const std::string& name) {
  return std::any_of(items.begin(), items.end(), [&](const auto& item) { return name == item.file_name; });
}

// What is to be said to an update for it to find the same image.
std::string asAsked(const Options& options) {
  return (options.callerName == fwcallers::kDefaultCaller ? "" : " --caller " + options.callerName) +
         (options.data.empty() ? "" : " --data \"" + options.data + "\"");
}

Finding reasonOf(const Options& options, const Library& library, const LogMessages& all,
                 const std::string& module, bool due) {
  if (const auto problem = bindingProblem(library, module)) {
    return *problem;
  }
  if (due) {
    return {Outcome::Ok, "A new image is ready.", "fw-update update " + module + asAsked(options)};
  }
  if (kindOf(module) == std::string("EXT")) {
    return {Outcome::NothingToDo, "It runs its own procedure and is never pending; update starts it.", ""};
  }
  if (const auto finding = strongestMeaning(checkOf(all, module), module)) {
    return *finding;
  }
  return {Outcome::ModuleFailed, module + " answered neither yes nor no.", ""};
}

// The module whose turn it was when the query broke off.
std::string lastAsked(const LogMessages& messages) {
  std::string module = "A module";
  for (const LogMessage& message : messages) {
    if (message.format == MESSAGE_CHECK_BEGINS && !message.arguments.empty()) {
      module = message.arguments[0];
    }
  }
  return module;
}

Finding countDue(const std::vector<ModuleState>& states, std::size_t due) {
  if (due == 0) {
    return {Outcome::NothingToDo, "No module needs an update.", ""};
  }
  return {Outcome::Ok,
          std::to_string(due) + " of " + std::to_string(states.size()) + " modules need an update.", ""};
}

// Fills states, unless a module breaks off.
Finding ask(const Options& options, const Library& library, std::vector<ModuleState>& states) {
  const LibraryLog& log = LibraryLog::instance();
  const std::size_t mark = log.mark();
  std::array<char, 128> data{};
  options.requestData().copy(data.data(), data.size() - 1);
  try {
    const auto pending = library.facade->fw_getUpdateItemList(options.caller->type, data.data());
    const LogMessages messages = log.since(mark);
    for (const FWUpdateItem& item : library.items) {
      const bool due = contains(pending, item.file_name);
      states.push_back({item, due, reasonOf(options, library, messages, item.file_name, due)});
    }
    return countDue(states, pending.size());
  } catch (const std::exception& error) {
    return brokeOff(lastAsked(log.since(mark)), error);
  }
}

constexpr char kPending[] = "pending";

const char* answerOf(const std::string& outcome) {
  if (outcome == kPending) {
    return "yes";
  }
  return outcome == infoOf(Outcome::NothingToDo).id ? "no" : "refused";
}

Json::Value moduleJson(const ModuleState& state, UPDATE_TYPE place) {
  Json::Value module;
  module["library"] = state.item.file_name;
  module["firmware"] = state.item.fw_name;
  module["version"] = state.item.version;
  module["pending"] = state.due;
  addTo(module, state.reason, "reason");
  if (state.due) {
    module["outcome"] = kPending;
    const auto offered = offeredImage(state.item.fw_name, place);
    module["offeredVersion"] = offered ? offered->version : "";
    module["class"] = offered && offered->updateClass == kSecurity ? kSecurity : kFeature;
  }
  return module;
}

}  // namespace

std::string pendingText(const frame::Report& report) {
  const Json::Value& modules = report.details["modules"];
  if (modules.empty()) {
    return "";
  }
  std::vector<std::vector<std::string>> rows{{"LIBRARY", "FIRMWARE", "VERSION", "PENDING", "REASON"}};
  for (const Json::Value& module : modules) {
    rows.push_back({textIn(module, "library"), textIn(module, "firmware"), textIn(module, "version"),
                    answerOf(textIn(module, "outcome")), textIn(module, "reason")});
  }
  return table(rows, terminalWidth(STDOUT_FILENO));
}

frame::Report runPending(const Options& options) {
  const Library library = openLibrary();
  std::vector<ModuleState> states;
  frame::Report report = reportOf(library.problem ? *library.problem : ask(options, library, states));
  report.details["caller"] = options.caller->name;
  report.details["modules"] = Json::arrayValue;
  for (const ModuleState& state : states) {
    report.details["modules"].append(moduleJson(state, options.caller->images));
  }
  report.body = pendingText(report);
  return report;
}

}  // namespace tool
