// fw-update usb estimate, fw-update usb apply
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <future>
#include <iostream>
#include <memory>

#include "commands.h"
#include "fw-update-symbol-manager.h"
#include "isolation/supervised.h"
#include "library/library.h"
#include "lock/interruption.h"
#include "progress/progress-poller.h"
#include "progress/progress-reporter.h"
#include "secret-file.h"
#include "terminal.h"
#include "usb/package-refusal.h"
#include "usb/usb-packages.h"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kRedraw{100};
constexpr const char* kUncheckedWarning =
    "signatures were NOT checked: /usr/lib/libkZAQUser.so cannot be used, and the library then takes every "
    "package";

void warn(Report& report, const Options& options, const std::string& sentence) {
  if (options.json || options.ndjson) {
    report.details["warnings"].append(sentence);
  } else {
    std::cerr << "fw-update: warning: " << sentence << std::endl;
  }
}

// With the "/" at the end that the library wants; empty when there is none.
std::string packageDirectory(const Options& options, Report& report) {
  if (options.directory.empty()) {
    std::string drive;
    if (!FWUpdateSymbol("").getUsbMountPath(drive)) {
      report.finding = {Outcome::RefusedImage, "No USB drive is mounted.",
                        "Plug in the drive and wait until it is mounted at /opt/media/USBDriveA, or name the "
                        "packages' directory."};
    }
    return drive;
  }
  struct stat status = {};
  if (stat(options.directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    report.finding = {Outcome::Usage, options.directory + " is no directory.",
                      "Name the directory that holds the packages, such as tunerfw.bin."};
    return "";
  }
  return options.directory.back() == '/' ? options.directory : options.directory + "/";
}

// False when the report says why not.
bool permitRollback(const Options& options, Report& report) {
  const auto problem = options.allowRollback ? allowRollback() : std::nullopt;
  if (problem) {
    report.finding = *problem;
  }
  return !problem;
}

struct Session {
  Library library;
  secret::Secret key{0};
  std::string directory;
  std::vector<PackageState> states;
};

// Null when the report says why not.
std::unique_ptr<Session> open(const Options& options, Report& report) {
  report.details["modules"] = Json::arrayValue;
  if (!permitRollback(options, report)) {
    return nullptr;
  }
  try {
    auto session =
        std::make_unique<Session>(Session{Library{}, secret::readPackageKey(options.keyFile), "", {}});
    if (!session->key.warning.empty()) {
      warn(report, options, session->key.warning);
    }
    session->directory = packageDirectory(options, report);
    if (session->directory.empty()) {
      return nullptr;
    }
    report.details["directory"] = session->directory;
    session->library = openLibrary();
    if (!session->library.problem) {
      return session;
    }
    report.finding = *session->library.problem;
  } catch (const secret::Error& error) {
    report.finding = {
        Outcome::Usage, std::string(error.what()) + ".",
        "Name a file that holds the packages' key: 32 bytes, as fw-pack keygen package makes it."};
  }
  return nullptr;
}

// The library says only that a package is refused.
void explainRefusals(Session& session) {
  for (PackageState& state : session.states) {
    if (state.notSigned) {
      state.finding = whyRefused(session.directory + state.firmware + ".bin").value_or(state.finding);
    }
  }
}

// The library's own sum; false when a module broke off.
bool estimate(Session& session, const Options& options, Report& report) {
  const std::size_t mark = LibraryLog::instance().mark();
  int seconds = 0;
  try {
    FWUpdateSymbolManager::getInstance()->getFirmwareUpdateTime(session.key.data(), session.directory.c_str(),
                                                                seconds);
  } catch (const std::exception& error) {
    report.finding = {Outcome::ModuleFailed,
                      std::string("A module broke off with an error of its own: ") + error.what() + ".",
                      "Install a version of the module that fits this device, or remove it."};
    return false;
  }
  const LogMessages messages = LibraryLog::instance().since(mark);
  session.states = readEstimate(session.library, messages);
  explainRefusals(session);
  report.details["totalSeconds"] = seconds;
  report.details["signaturesChecked"] = signaturesChecked(messages);
  if (!signaturesChecked(messages)) {
    warn(report, options, kUncheckedWarning);
  }
  return true;
}

Json::Value moduleJson(const PackageState& state) {
  Json::Value module;
  module["library"] = state.library;
  module["firmware"] = state.firmware;
  module["version"] = state.version;
  module["needsUpdate"] = state.needed;
  if (state.needed) {
    module["expectedSeconds"] = state.seconds;
  }
  module["outcome"] = infoOf(state.finding.outcome).id;
  module["reason"] = state.finding.message;
  if (!state.finding.remedy.empty()) {
    module["remedy"] = state.finding.remedy;
  }
  return module;
}

const char* answerOf(const PackageState& state) {
  if (state.needed) {
    return "yes";
  }
  return state.finding.outcome == Outcome::NothingToDo ? "no" : "refused";
}

std::size_t countNeeded(const Session& session) {
  return static_cast<std::size_t>(std::count_if(session.states.begin(), session.states.end(),
                                                [](const PackageState& state) { return state.needed; }));
}

std::string estimateTable(const Session& session, int totalSeconds) {
  std::vector<std::vector<std::string>> rows{{"LIBRARY", "FIRMWARE", "VERSION", "UPDATE", "TIME", "REASON"}};
  for (const PackageState& state : session.states) {
    rows.push_back({state.library, state.firmware, state.version, answerOf(state),
                    state.needed ? std::to_string(state.seconds) + " s" : "", state.finding.message});
  }
  rows.push_back(
      {"total", "", "", std::to_string(countNeeded(session)), std::to_string(totalSeconds) + " s", ""});
  return table(rows, terminalWidth(STDOUT_FILENO));
}

void describeModules(const Session& session, Report& report) {
  report.details["modules"] = Json::arrayValue;
  for (const PackageState& state : session.states) {
    report.details["modules"].append(moduleJson(state));
  }
}

// When no module needs a package: the first refusal, or that there is nothing to do.
Finding whyNothing(const Session& session) {
  return firstProblem(session.states)
      .value_or(Finding{Outcome::NothingToDo, "No module needs a package of " + session.directory + ".", ""});
}

// ---- applying -----------------------------------------------------------------

// Tells the progress of one package after the other.
class PackageProgress {
 public:
  PackageProgress(const Options& chosen, const std::vector<PackageState>& all)
      : options_(chosen), states_(all) {}

  void tick(const LogMessages& messages) {
    const auto running = runningPackage(states_, messages);
    if (running && running->since != since_) {
      start(*running);
    }
    if (!running || !poller_) {
      return;
    }
    UpdateProgress progress;
    progress.module = states_[running->index].library;
    progress.phase = Phase::Updating;
    progress.elapsed = std::chrono::duration<double>(Clock::now() - running->since).count();
    progress.percent = poller_->percent();
    progress.limit = TimeLimit{static_cast<unsigned int>(states_[running->index].seconds), 0};
    reporter_->tick(progress);
  }

  // False when a module does not answer.
  bool finish() {
    if (reporter_) {
      reporter_->finish();
    }
    const bool answered = !poller_ || poller_->stop();
    poller_.reset();
    return answered;
  }

 private:
  void start(const RunningPackage& running) {
    finish();
    since_ = running.since;
    const std::string& module = states_[running.index].library;
    reporter_ = makeProgressReporter(options_);
    poller_ = std::make_unique<ProgressPoller>(module);
    if (options_.ndjson) {
      Json::Value event;
      event["event"] = "start";
      event["module"] = module;
      std::cout << onOneLine(event) << std::flush;
    }
  }

  const Options& options_;
  const std::vector<PackageState>& states_;
  std::unique_ptr<ProgressReporter> reporter_;
  std::unique_ptr<ProgressPoller> poller_;
  Clock::time_point since_;
};

// False when a module broke off; then the finding says so.
bool applyPackages(Session& session, const Options& options, Report& report) {
  const std::size_t mark = LibraryLog::instance().mark();
  const Clock::time_point start = Clock::now();
  const InterruptionGuard guard(mark);
  auto result = std::async(std::launch::async, [&] {
    return FWUpdateSymbolManager::getInstance()->doUpdateUSB(session.key.data(), session.directory.c_str());
  });
  PackageProgress progress(options, session.states);
  do {
    progress.tick(LibraryLog::instance().since(mark));
  } while (result.wait_for(kRedraw) != std::future_status::ready);
  report.moduleRuns = !progress.finish();
  readResults(session.states, LibraryLog::instance().since(mark));
  explainRefusals(session);
  report.details["elapsedSeconds"] = rounded(std::chrono::duration<double>(Clock::now() - start).count());
  try {
    report.details["result"] = result.get();
    return true;
  } catch (const std::exception& error) {
    report.finding = {Outcome::ModuleFailed,
                      std::string("A module broke off with an error of its own: ") + error.what() + ".",
                      "Install a version of the module that fits this device."};
    return false;
  }
}

void describeResults(const Session& session, Report& report) {
  describeModules(session, report);
  std::vector<std::vector<std::string>> rows{{"LIBRARY", "FIRMWARE", "BEFORE", "NOW", "RESULT"}};
  for (Json::Value& module : report.details["modules"]) {
    const std::string library = module["library"].asString();
    char version[128] = {};
    supervised::tellStep(Step::Version, library);
    if (!report.moduleRuns && session.library.facade->fw_getVersion(library.c_str(), version) == 0) {
      module["versionAfter"] = version;
    }
    rows.push_back({library, module["firmware"].asString(), module["version"].asString(), version,
                    module["reason"].asString()});
  }
  report.body = table(rows, terminalWidth(STDOUT_FILENO));
}

Finding summary(const Session& session, const Report& report) {
  if (const auto problem = firstProblem(session.states)) {
    return *problem;
  }
  char text[80];
  std::snprintf(text, sizeof text, "%zu %s in %.1f s.", countNeeded(session),
                countNeeded(session) == 1 ? "package was applied" : "packages were applied",
                report.details["elapsedSeconds"].asDouble());
  return {Outcome::Updated, text, ""};
}

}  // namespace

Report runUsbEstimate(const Options& options) {
  Report report;
  const auto session = open(options, report);
  if (!session || !estimate(*session, options, report)) {
    return report;
  }
  describeModules(*session, report);
  const int seconds = report.details["totalSeconds"].asInt();
  report.body = estimateTable(*session, seconds);
  report.finding = {Outcome::Ok,
                    std::to_string(countNeeded(*session)) + " modules need a package, in about " +
                        std::to_string(seconds) + " s.",
                    ""};
  if (countNeeded(*session) == 0) {
    report.finding = whyNothing(*session);
  }
  return report;
}

Report runUsbApply(const Options& options) {
  Report report;
  const auto session = open(options, report);
  if (!session || !estimate(*session, options, report)) {
    return report;
  }
  if (countNeeded(*session) == 0) {
    describeModules(*session, report);
    report.body = estimateTable(*session, 0);
    report.finding = whyNothing(*session);
    return report;
  }
  const bool applied = applyPackages(*session, options, report);
  describeResults(*session, report);
  if (applied) {
    report.finding = summary(*session, report);
  }
  return report;
}

}  // namespace tool
