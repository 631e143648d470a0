// SPDX-License-Identifier: Apache-2.0
// fw-update usb estimate, fw-update usb apply
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <future>
#include <iostream>
#include <optional>

#include "commands.h"
#include "commands/texts.h"
#include "device-paths.h"
#include "fw-update-symbol-manager.h"
#include "isolation/supervised.h"
#include "library/library.h"
#include "library/log-meanings.h"
#include "lock/interruption.h"
#include "report.h"
#include "secret-file.h"
#include "terminal.h"
#include "usb/package-progress.h"
#include "usb/package-refusal.h"
#include "usb/usb-packages.h"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kRedraw{100};
constexpr const char* kUncheckedWarning =
    "signatures were NOT checked: /usr/lib/libkZAQUser.so cannot be used, and the library then takes every "
    "package";

// One command, and what it has found so far.
struct Session {
  explicit Session(const Options& given) : options(given) {}

  const Options& options;
  Library library;
  std::optional<secret::Secret> key;
  std::string directory;              // empty: there is none
  std::vector<std::string> warnings;  // for programs
  std::vector<PackageState> states;
  struct Estimate {
    int seconds = 0;  // the library's own sum
    bool signaturesChecked = false;
  };
  std::optional<Estimate> estimate;
  std::optional<int> result;  // the library's
  std::optional<double> elapsedSeconds;
  bool moduleRuns = false;  // a thread is still inside a module
};

void warn(Session& session, const std::string& sentence) {
  if (session.options.json || session.options.ndjson) {
    session.warnings.push_back(sentence);
  } else {
    std::cerr << "fw-update: warning: " << sentence << std::endl;
  }
}

// ---- What both need first; each step gives what stands in the way ----------------

// With the "/" at the end that the library wants.
std::optional<Finding> findDirectory(Session& session) {
  const std::string& named = session.options.directory;
  if (named.empty()) {
    if (FWUpdateSymbol("").getUsbMountPath(session.directory)) {
      return std::nullopt;
    }
    return Finding{Outcome::RefusedImage, "No USB drive is mounted.",
                   std::string("Plug in the drive and wait until it is mounted at ") + fwpaths::kUsbDrive +
                       ", or name the packages' directory."};
  }
  struct stat status = {};
  if (stat(named.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    return Finding{Outcome::Usage, named + " is no directory.",
                   "Name the directory that holds the packages, such as tunerfw.bin."};
  }
  session.directory = named.back() == '/' ? named : named + "/";
  return std::nullopt;
}

std::optional<Finding> readKey(Session& session) {
  try {
    session.key.emplace(secret::readPackageKey(session.options.keyFile));
  } catch (const secret::Error& error) {
    return Finding{Outcome::Usage, std::string(error.what()) + ".",
                   "Name a file that holds the packages' key: 32 bytes, as fw-pack keygen package makes it."};
  }
  if (!session.key->warning.empty()) {
    warn(session, session.key->warning);
  }
  return std::nullopt;
}

std::optional<Finding> permitRollback(Session& session) {
  return session.options.allowRollback ? allowRollback() : std::nullopt;
}

std::optional<Finding> open(Session& session) {
  session.library = openLibrary();
  return session.library.problem;
}

// The library says only that a package is refused.
void explainRefusals(Session& session) {
  for (PackageState& state : session.states) {
    if (state.notSigned) {
      state.finding = whyRefused(session.directory + state.firmware + ".bin").value_or(state.finding);
    }
  }
}

std::optional<Finding> estimate(Session& session) {
  const std::size_t mark = LibraryLog::instance().mark();
  Session::Estimate estimated;
  try {
    FWUpdateSymbolManager::getInstance()->getFirmwareUpdateTime(session.key->data(),
                                                                session.directory.c_str(), estimated.seconds);
  } catch (const std::exception& error) {
    return brokeOff("A module", error);
  }
  const LogMessages messages = LibraryLog::instance().since(mark);
  session.states = readEstimate(session.library, messages);
  explainRefusals(session);
  estimated.signaturesChecked = signaturesChecked(messages);
  session.estimate = estimated;
  if (!estimated.signaturesChecked) {
    warn(session, kUncheckedWarning);
  }
  return std::nullopt;
}

std::optional<Finding> prepare(Session& session) {
  for (const auto step : {permitRollback, readKey, findDirectory, open, estimate}) {
    if (auto problem = step(session)) {
      return problem;
    }
  }
  return std::nullopt;
}

// ---- The report -------------------------------------------------------------------

Json::Value moduleJson(const PackageState& state) {
  Json::Value module;
  module["library"] = state.library;
  module["firmware"] = state.firmware;
  module["version"] = state.version;
  module["needsUpdate"] = state.needed;
  if (state.needed) {
    module["expectedSeconds"] = state.seconds;
  }
  if (state.versionAfter) {
    module["versionAfter"] = *state.versionAfter;
  }
  addTo(module, state.finding, "reason");
  return module;
}

Json::Value membersOf(const Session& session) {
  Json::Value members;
  members["modules"] = Json::arrayValue;
  for (const PackageState& state : session.states) {
    members["modules"].append(moduleJson(state));
  }
  for (const std::string& sentence : session.warnings) {
    members["warnings"].append(sentence);
  }
  if (!session.directory.empty()) {
    members["directory"] = session.directory;
  }
  if (session.estimate) {
    members["totalSeconds"] = session.estimate->seconds;
    members["signaturesChecked"] = session.estimate->signaturesChecked;
  }
  if (session.result) {
    members["result"] = *session.result;
  }
  if (session.elapsedSeconds) {
    members["elapsedSeconds"] = *session.elapsedSeconds;
  }
  return members;
}

frame::Report reportOf(const Session& session, const Finding& finding) {
  frame::Report report = reportOf(finding);
  report.details = membersOf(session);
  report.body = usbText(report);
  report.endsAtOnce = session.moduleRuns;
  return report;
}

const char* answerOf(const Json::Value& module) {
  if (module["needsUpdate"].asBool()) {
    return "yes";
  }
  return textIn(module, "outcome") == infoOf(Outcome::NothingToDo).id ? "no" : "refused";
}

std::size_t countNeeded(const Session& session) {
  return static_cast<std::size_t>(std::count_if(session.states.begin(), session.states.end(),
                                                [](const PackageState& state) { return state.needed; }));
}

std::string estimateTable(const Json::Value& details) {
  std::vector<std::vector<std::string>> rows{{"LIBRARY", "FIRMWARE", "VERSION", "UPDATE", "TIME", "REASON"}};
  std::size_t needed = 0;
  for (const Json::Value& module : details["modules"]) {
    needed += module["needsUpdate"].asBool() ? 1U : 0U;
    rows.push_back({textIn(module, "library"), textIn(module, "firmware"), textIn(module, "version"),
                    answerOf(module),
                    module.isMember("expectedSeconds") ? textIn(module, "expectedSeconds") + " s" : "",
                    textIn(module, "reason")});
  }
  rows.push_back({"total", "", "", std::to_string(needed), textIn(details, "totalSeconds") + " s", ""});
  return table(rows, terminalWidth(STDOUT_FILENO));
}

std::string resultTable(const Json::Value& details) {
  std::vector<std::vector<std::string>> rows{{"LIBRARY", "FIRMWARE", "BEFORE", "NOW", "RESULT"}};
  for (const Json::Value& module : details["modules"]) {
    rows.push_back({textIn(module, "library"), textIn(module, "firmware"), textIn(module, "version"),
                    textIn(module, "versionAfter"), textIn(module, "reason")});
  }
  return table(rows, terminalWidth(STDOUT_FILENO));
}

// When no module needs a package: the first refusal, or that there is nothing to do.
Finding whyNothing(const Session& session) {
  return firstProblem(session.states)
      .value_or(Finding{Outcome::NothingToDo, "No module needs a package of " + session.directory + ".", ""});
}

// ---- Applying ---------------------------------------------------------------------

// A module that failed may still be busy; then none is asked.
void askVersions(Session& session) {
  for (PackageState& state : session.states) {
    char version[128] = {};
    supervised::tellStep(Step::Version, state.library);
    if (!session.moduleRuns && session.library.facade->fw_getVersion(state.library.c_str(), version) == 0) {
      state.versionAfter = version;
    }
  }
}

Finding summary(const Session& session) {
  if (const auto problem = firstProblem(session.states)) {
    return *problem;
  }
  char seconds[40];
  std::snprintf(seconds, sizeof seconds, "%.1f s", *session.elapsedSeconds);
  return {Outcome::Updated,
          std::to_string(countNeeded(session)) +
              (countNeeded(session) == 1 ? " package was" : " packages were") + " applied in " + seconds +
              ".",
          ""};
}

Finding findingOf(Session& session, std::future<int>& result) {
  try {
    session.result = result.get();
    return summary(session);
  } catch (const std::exception& error) {
    return {Outcome::ModuleFailed, brokeOff("A module", error).message,
            "Install a version of the module that fits this device."};
  }
}

Finding applyPackages(Session& session) {
  const std::size_t mark = LibraryLog::instance().mark();
  const Clock::time_point start = Clock::now();
  const InterruptionGuard guard(mark);
  auto result = std::async(std::launch::async, [&] {
    return FWUpdateSymbolManager::getInstance()->doUpdateUSB(session.key->data(), session.directory.c_str());
  });
  PackageProgress progress(session.options, session.states);
  do {
    progress.tick(LibraryLog::instance().since(mark));
  } while (result.wait_for(kRedraw) != std::future_status::ready);
  session.moduleRuns = !progress.finish();
  readResults(session.states, LibraryLog::instance().since(mark));
  explainRefusals(session);
  session.elapsedSeconds = rounded(std::chrono::duration<double>(Clock::now() - start).count());
  return findingOf(session, result);
}

}  // namespace

std::string usbText(const frame::Report& report) {
  const Json::Value& details = report.details;
  if (!details.isMember("totalSeconds")) {  // it was not estimated
    return "";
  }
  return details.isMember("elapsedSeconds") ? resultTable(details) : estimateTable(details);
}

frame::Report runUsbEstimate(const Options& options) {
  Session session(options);
  if (const auto problem = prepare(session)) {
    return reportOf(session, *problem);
  }
  const std::size_t needed = countNeeded(session);
  const Finding summed = {Outcome::Ok,
                          std::to_string(needed) + " modules need a package, in about " +
                              std::to_string(session.estimate->seconds) + " s.",
                          ""};
  return reportOf(session, needed == 0 ? whyNothing(session) : summed);
}

frame::Report runUsbApply(const Options& options) {
  Session session(options);
  if (const auto problem = prepare(session)) {
    return reportOf(session, *problem);
  }
  if (countNeeded(session) == 0) {
    return reportOf(session, whyNothing(session));
  }
  const Finding finding = applyPackages(session);
  askVersions(session);
  return reportOf(session, finding);
}

}  // namespace tool
