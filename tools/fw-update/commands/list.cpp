// SPDX-License-Identifier: Apache-2.0
// fw-update list
#include <unistd.h>

#include <algorithm>

#include "commands.h"
#include "commands/texts.h"
#include "library/hang-notice.h"
#include "library/library.h"
#include "report.h"
#include "terminal.h"

namespace tool {
namespace {

constexpr const char* kNotTold = "not told";  // a module without a version, or that cannot ask its component
constexpr const char* kBrokenKind = "broken";

std::string kindOf(const ModuleFile& file) {
  return file.problem ? kBrokenKind : tool::kindOf(file.name);
}

// A module without a valid package identifier is listed, and of no use.
std::vector<ModuleFile> readItems(const Library& library) {
  std::vector<ModuleFile> files;
  for (const FWUpdateItem& item : library.items) {
    files.push_back({item.file_name, item.fw_name, item.version, bindingProblem(library, item.file_name)});
  }
  return files;
}

Finding findingOf(const Library& library, const std::vector<ModuleFile>& files) {
  if (library.problem) {
    return *library.problem;
  }
  if (files.empty()) {
    return {Outcome::Ok, "No module is installed in /prd/usr/fwupdate/controls.", ""};
  }
  const auto broken = std::find_if(files.rbegin(), files.rend(),
                                   [](const ModuleFile& file) { return file.problem.has_value(); });
  return broken != files.rend()
             ? *broken->problem
             : Finding{Outcome::Ok, std::to_string(files.size()) + " modules are installed.", ""};
}

Json::Value moduleJson(const ModuleFile& file) {
  Json::Value module;
  module["library"] = file.name;
  module["firmware"] = file.firmwareName;
  module["version"] = file.version;
  module["kind"] = kindOf(file);
  return module;
}

Json::Value brokenJson(const ModuleFile& file) {
  Json::Value broken;
  broken["library"] = file.name;
  broken["message"] = file.problem->message;
  broken["remedy"] = file.problem->remedy;
  return broken;
}

}  // namespace

std::string listText(const frame::Report& report) {
  const Json::Value& modules = report.details["modules"];
  if (modules.empty()) {
    return "";
  }
  std::vector<std::vector<std::string>> rows{{"LIBRARY", "FIRMWARE", "VERSION", "KIND"}};
  for (const Json::Value& module : modules) {
    const std::string version = textIn(module, "version");
    const std::string kind = textIn(module, "kind");
    rows.push_back({textIn(module, "library"), textIn(module, "firmware"),
                    version.empty() && kind != kBrokenKind ? kNotTold : version, kind});
  }
  return table(rows, terminalWidth(STDOUT_FILENO));
}

// When the facade refuses to work, every file is read on its own.
frame::Report runList(const Options&) {
  const HangNotice notice("");
  const Library library = openLibrary();
  const std::vector<ModuleFile> files = library.problem ? inspectModules() : readItems(library);
  frame::Report report = reportOf(findingOf(library, files));
  report.details["modules"] = Json::arrayValue;
  for (const ModuleFile& file : files) {
    report.details["modules"].append(moduleJson(file));
    if (file.problem) {
      report.details["broken"].append(brokenJson(file));
    }
  }
  report.body = listText(report);
  return report;
}

}  // namespace tool
