// fw-update list
#include <unistd.h>

#include "commands.h"
#include "library/library.h"
#include "terminal.h"

namespace tool {
namespace {

using Row = std::vector<std::string>;

Json::Value moduleJson(const Row& row) {
  Json::Value module;
  module["library"] = row[0];
  module["firmware"] = row[1];
  module["version"] = row[2];
  module["kind"] = row[3];
  return module;
}

void addBroken(Report& report, const ModuleFile& file) {
  Json::Value broken;
  broken["library"] = file.name;
  broken["message"] = file.problem->message;
  broken["remedy"] = file.problem->remedy;
  report.details["broken"].append(broken);
}

// What can be read although the facade refuses to work: every file on its own.
std::vector<Row> readOneByOne(Report& report) {
  std::vector<Row> rows;
  for (const ModuleFile& file : inspectModules()) {
    rows.push_back({file.name, file.firmwareName, file.version, file.problem ? "broken" : kindOf(file.name)});
    if (file.problem) {
      addBroken(report, file);
    }
  }
  return rows;
}

std::vector<Row> readItems(Report& report, const Library& library) {
  std::vector<Row> rows;
  for (const FWUpdateItem& item : library.items) {
    const std::string name = item.file_name;
    rows.push_back({name, item.fw_name, item.version, kindOf(name)});
    // A module without a valid package identifier is listed, and of no use.
    if (const auto problem = bindingProblem(library, name)) {
      rows.back()[3] = "broken";
      addBroken(report, {name, "", "", problem});
      report.finding = *problem;
    }
  }
  return rows;
}

}  // namespace

Report runList(const Options&) {
  Report report;
  report.details["modules"] = Json::arrayValue;
  const Library library = openLibrary();
  report.finding = {Outcome::Ok, std::to_string(library.items.size()) + " modules are installed.", ""};

  const auto rows = library.problem ? readOneByOne(report) : readItems(report, library);

  if (library.problem) {
    report.finding = *library.problem;
  } else if (rows.empty()) {
    report.finding.message = "No module is installed in /prd/usr/fwupdate/controls.";
  }
  if (rows.empty()) {
    return report;
  }
  std::vector<Row> shown{{"LIBRARY", "FIRMWARE", "VERSION", "KIND"}};
  for (const Row& row : rows) {
    shown.push_back(row);
    report.details["modules"].append(moduleJson(row));
  }
  report.body = table(shown, terminalWidth(STDOUT_FILENO));
  return report;
}

}  // namespace tool
