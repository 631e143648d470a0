// SPDX-License-Identifier: Apache-2.0
#include "usb/usb-packages.h"

#include <algorithm>
#include <cstring>

#include "library-messages.h"
#include "library/log-meanings.h"

namespace tool {
namespace {

// Each module's turn begins with one of these: its package could not be opened, or
// its signature was checked.
bool beginsTurn(const LogMessage& message) {
  const fwmessages::Event event = loggedOf(message).event;
  return event == fwmessages::Event::PackageChecked || event == fwmessages::Event::PackageMissing;
}

bool names(const LogMessages& turn, const std::string& firmware) {
  const std::string file = "/" + firmware + ".bin";
  return std::any_of(turn.begin(), turn.end(), [&](const LogMessage& message) {
    return std::any_of(message.arguments.begin(), message.arguments.end(), [&](const std::string& argument) {
      return argument == firmware ||
             (argument.size() >= file.size() &&
              argument.compare(argument.size() - file.size(), file.size(), file) == 0);
    });
  });
}

bool isExtension(const std::string& library) {
  return std::strcmp(kindOf(library), "EXT") == 0;
}

// Of a module that the library asked about its package.
void readTurn(PackageState& state, const LogMessages& turn) {
  if (const LogMessage* need = findMessage(turn, MESSAGE_USB_PACKAGE_NEEDED)) {
    state.needed = true;
    state.seconds = need->arguments.size() > 1 ? std::stoi(need->arguments[1]) : 0;
    state.finding = {Outcome::Ok, "The package is newer.", ""};
  } else {
    state.notSigned = findMessage(turn, MESSAGE_NOT_SIGNED) != nullptr;
    state.finding =
        strongestMeaning(turn, state.library)
            .value_or(Finding{
                Outcome::NothingToDo,
                state.library + " does not need its package: version " + state.version + " is active.", ""});
  }
}

bool isProblem(const Finding& finding) {
  return infoOf(finding.outcome).exitCode != 0 && finding.outcome != Outcome::NothingToDo;
}

}  // namespace

std::vector<LogMessages> packageTurns(const LogMessages& messages) {
  std::vector<LogMessages> turns;
  for (const LogMessage& message : messages) {
    if (beginsTurn(message)) {
      turns.emplace_back();
    }
    if (!turns.empty()) {
      turns.back().push_back(message);
    }
  }
  return turns;
}

std::vector<PackageState> readEstimate(const Library& library, const LogMessages& messages) {
  const std::vector<LogMessages> turns = packageTurns(messages);
  std::vector<PackageState> states;
  auto turn = turns.begin();
  for (const FWUpdateItem& item : library.items) {
    PackageState state{item.file_name, item.fw_name, item.version, false, 0, false, {}};
    if (isExtension(state.library)) {
      state.finding = {Outcome::NothingToDo, "It runs its own procedure and takes no package.", ""};
    } else if (const auto problem = bindingProblem(library, state.library)) {
      state.finding = *problem;
    } else if (turn != turns.end()) {
      readTurn(state, *turn++);  // the library asks in the order of its list
    }
    states.push_back(state);
  }
  return states;
}

void readResults(std::vector<PackageState>& states, const LogMessages& messages) {
  const std::vector<LogMessages> turns = packageTurns(messages);
  for (PackageState& state : states) {
    const auto turn = std::find_if(turns.begin(), turns.end(),
                                   [&](const LogMessages& its) { return names(its, state.firmware); });
    if (!state.needed || turn == turns.end()) {
      continue;
    }
    state.notSigned = findMessage(*turn, MESSAGE_NOT_SIGNED_ANY_MORE) != nullptr;
    state.finding =
        strongestMeaning(*turn, state.library)
            .value_or(Finding{Outcome::Unexpected,
                              "The library does not say how the update of " + state.library + " ended.",
                              "See the log (--log)."});
  }
}

bool signaturesChecked(const LogMessages& messages) {
  return findMessage(messages, MESSAGE_VERIFIER_NOT_LOADED) == nullptr &&
         findMessage(messages, MESSAGE_VERIFIER_WITHOUT_ENTRY) == nullptr;
}

std::optional<RunningPackage> runningPackage(const std::vector<PackageState>& states,
                                             const LogMessages& messages) {
  const fwmessages::UpdateTracker tracker = trackerOf(messages);
  if (tracker.updates().empty()) {
    return std::nullopt;
  }
  const fwmessages::Update& update = tracker.updates().back();
  const fwmessages::StageSpan* writing = update.find(fwmessages::Stage::InModule);
  if (writing == nullptr || !writing->isOpen) {
    return std::nullopt;
  }
  for (std::size_t i = 0; i < states.size(); ++i) {
    if (states[i].needed && update.firmware == states[i].firmware) {
      return RunningPackage{
          i, std::chrono::steady_clock::time_point(std::chrono::nanoseconds(writing->span.begin))};
    }
  }
  return std::nullopt;
}

std::optional<Finding> firstProblem(const std::vector<PackageState>& states) {
  for (const PackageState& state : states) {
    if (isProblem(state.finding)) {
      return state.finding;
    }
  }
  return std::nullopt;
}

}  // namespace tool
