// SPDX-License-Identifier: Apache-2.0
// fw-update download NAME... | --all
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "commands.h"
#include "commands/texts.h"
#include "device-paths.h"
#include "fw-update-symbol-manager.h"
#include "library-messages.h"
#include "library/library-log.h"
#include "library/library.h"
#include "library/log-meanings.h"
#include "platform-messages.h"
#include "progress/download-reporter.h"
#include "report.h"
#include "terminal.h"

namespace tool {
namespace {

using appbinaryManager::DownloadProgress;
using appbinaryManager::DownloadState;

constexpr std::chrono::milliseconds kRedraw{100};

struct Package {
  std::string module;
  std::string name;  // the package identifier
  Finding finding;
  std::string reason;  // of a download that failed: one word
};

std::vector<std::string> wantedModules(const Options& options, const Library& library) {
  if (!options.allModules) {
    return options.modules;
  }
  std::vector<std::string> names;
  for (const FWUpdateItem& item : library.items) {
    if (kindOf(item.file_name) != std::string("EXT")) {
      names.emplace_back(item.file_name);
    }
  }
  return names;
}

// The platform says why, the library only that.
Finding refusal(const LogMessages& messages, const std::string& package) {
  for (const LogMessage& message : messages) {
    if (message.format == PLATFORM_MESSAGE_NOT_DOWNLOADED && message.arguments.size() > 1 &&
        message.arguments[0] == package) {
      return {Outcome::DownloadFailed, package + " is not downloaded: " + message.arguments[1], ""};
    }
  }
  return {Outcome::DownloadFailed, "The platform refused to download " + package + ".",
          "See the log (--log)."};
}

bool wasRequested(const LogMessages& messages, const std::string& package) {
  for (const LogMessage& message : messages) {
    if (message.format == MESSAGE_DOWNLOAD_REQUESTED && !message.arguments.empty() &&
        message.arguments[0] == package) {
      return true;
    }
  }
  return false;
}

Package request(const std::string& module) {
  const std::size_t mark = LibraryLog::instance().mark();
  FWUpdateSymbol symbol(module);
  symbol.loadSymbol(module);
  Package package{module, symbol.getEMPName(), {}, ""};
  if (symbol.downloadEMP()) {
    package.finding = {Outcome::Ok, "The download of " + package.name + " was requested.", ""};
  } else if (package.name.empty()) {
    package.finding = {Outcome::NothingToDo, module + " has no extension package.", ""};
  } else {
    package.finding = refusal(LibraryLog::instance().since(mark), package.name);
  }
  return package;
}

// Through the library's own operation for all modules.
std::vector<Package> requestAll(const std::vector<std::string>& modules) {
  const std::size_t mark = LibraryLog::instance().mark();
  FWUpdateSymbolManager::getInstance()->downloadEMPAll();
  const LogMessages messages = LibraryLog::instance().since(mark);
  std::vector<Package> packages;
  for (const std::string& module : modules) {
    FWUpdateSymbol symbol(module);
    symbol.loadSymbol(module);
    Package package{module, symbol.getEMPName(), {}, ""};
    package.finding = wasRequested(messages, package.name)
                          ? Finding{Outcome::Ok, "The download of " + package.name + " was requested.", ""}
                          : refusal(messages, package.name);
    packages.push_back(package);
  }
  return packages;
}

// A platform may leave the call out.
DownloadProgress progressOf(const std::string& package) {
  return &appbinaryManager::ABM_GetDownloadProgress == nullptr
             ? DownloadProgress()
             : appbinaryManager::ABM_GetDownloadProgress(package);
}

// Empty while the download runs.
std::optional<Finding> endOf(const std::string& package, const DownloadProgress& progress) {
  switch (progress.state) {
    case DownloadState::Running:
      return std::nullopt;
    case DownloadState::Done:
      return Finding{Outcome::Ok,
                     package + " was downloaded (" + std::to_string(progress.received) + " bytes).", ""};
    case DownloadState::Failed:
      return Finding{Outcome::DownloadFailed, package + " was not downloaded: " + progress.message,
                     progress.remedy};
    case DownloadState::BrokenOff:
      return Finding{Outcome::DownloadFailed, "The download of " + package + " was broken off.",
                     "Try again: it goes on where it stopped, if the server can."};
    case DownloadState::NotKnown:
      break;
  }
  return Finding{Outcome::NotKnown,
                 "The download of " + package + " was requested, but this set does not tell how it goes.",
                 std::string("The package is there when ") + fwpaths::kPackageImages + package + ".img is."};
}

void waitForEnd(Package& package, DownloadReporter& reporter) {
  for (;;) {
    const DownloadProgress progress = progressOf(package.name);
    if (const auto end = endOf(package.name, progress)) {
      package.finding = *end;
      package.reason = progress.state == DownloadState::Failed ? progress.reason : "";
      break;
    }
    reporter.tick(package.name, progress);
    std::this_thread::sleep_for(kRedraw);
  }
  reporter.finish();
}

Json::Value toJson(const Package& package) {
  Json::Value value;
  value["module"] = package.module;
  value["package"] = package.name;
  addTo(value, package.finding);
  if (!package.reason.empty()) {
    value["reason"] = package.reason;
  }
  return value;
}

// The first failure decides, else the first whose end is not known, else the first package.
Finding conclude(const std::vector<Package>& packages) {
  if (packages.empty()) {
    return {Outcome::NothingToDo, "No module has an extension package.", ""};
  }
  for (const Outcome trouble : {Outcome::DownloadFailed, Outcome::NotKnown}) {
    for (const Package& package : packages) {
      if (package.finding.outcome == trouble) {
        return package.finding;
      }
    }
  }
  return packages.front().finding;
}

frame::Report reportOf(const std::vector<Package>& packages) {
  frame::Report report = reportOf(conclude(packages));
  report.details["packages"] = Json::arrayValue;
  for (const Package& package : packages) {
    report.details["packages"].append(toJson(package));
  }
  report.body = downloadText(report);
  return report;
}

std::optional<Finding> problemOf(const Library& library, const std::vector<std::string>& modules) {
  for (const std::string& module : modules) {
    if (auto problem = moduleProblem(library, module)) {
      return problem;
    }
  }
  return library.problem;
}

std::vector<Package> requestEach(const std::vector<std::string>& modules) {
  std::vector<Package> packages;
  std::transform(modules.begin(), modules.end(), std::back_inserter(packages), request);
  return packages;
}

}  // namespace

// The sentence says it all when there is one package.
std::string downloadText(const frame::Report& report) {
  const Json::Value& packages = report.details["packages"];
  std::string text;
  for (Json::ArrayIndex i = 0; packages.size() > 1 && i < packages.size(); ++i) {
    text += wrapped(textIn(packages[i], "message"), terminalWidth(STDOUT_FILENO)) + "\n";
  }
  return text;
}

frame::Report runDownload(const Options& options) {
  const Library library = openLibrary();
  const std::vector<std::string> modules = wantedModules(options, library);
  if (const auto problem = problemOf(library, modules)) {
    return reportOf(*problem);
  }
  std::vector<Package> packages = options.allModules ? requestAll(modules) : requestEach(modules);
  const auto reporter = makeDownloadReporter(options);
  for (Package& package : packages) {
    const bool accepted = package.finding.outcome == Outcome::Ok;
    if (accepted) {
      reporter->start(package.name);
    }
    if (accepted && options.wait) {
      waitForEnd(package, *reporter);
    }
  }
  return reportOf(packages);
}

}  // namespace tool
