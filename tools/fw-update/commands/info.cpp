// fw-update info NAME
#include <unistd.h>

#include <array>

#include "commands.h"
#include "fw-update-symbol.h"
#include "library/library.h"
#include "terminal.h"

namespace tool {
namespace {

std::string textOf(const std::array<char, 128>& buffer) {
  return std::string(buffer.data(), strnlen(buffer.data(), buffer.size()));
}

// The facade does not tell these; a record of its own asks the module.
void addModuleAnswers(Report& report, const std::string& name) {
  FWUpdateSymbol module(name);
  if (module.loadSymbol(name) != 0) {
    return;
  }
  if (int seconds = 0; module.getExpectedTime(&seconds) == 0) {
    report.details["expectedSeconds"] = seconds;
  }
  if (!module.getEMPName().empty()) {
    report.details["package"] = module.getEMPName();
  }
}

std::string shown(const Json::Value& details, const char* member, const char* unit, const char* otherwise) {
  return details.isMember(member) ? details[member].asString() + unit : otherwise;
}

std::string describe(const Json::Value& details) {
  return table({{"Library", details["library"].asString()},
                {"Firmware", shown(details, "firmware", "", "-")},
                {"Version", shown(details, "version", "", "-")},
                {"Kind", details["kind"].asString()},
                {"Package", shown(details, "package", "", "none")},
                {"Takes about", shown(details, "expectedSeconds", " s", "the module does not tell")},
                {"Progress", shown(details, "progress", " %", "the module reports none")}},
               terminalWidth(STDOUT_FILENO));
}

}  // namespace

Report runInfo(const Options& options) {
  Report report;
  report.details["module"] = options.module;
  const Library library = openLibrary();
  if (const auto problem = moduleProblem(library, options.module)) {
    report.finding = *problem;
    return report;
  }

  std::array<char, 128> version{};
  std::array<char, 128> firmware{};
  const int result =
      library.facade->fw_getFWInformation(options.module.c_str(), version.data(), firmware.data());
  unsigned int progress = 0;
  if (library.facade->fw_getUpdateProgress(options.module.c_str(), &progress) == 0) {
    report.details["progress"] = progress;
  }

  report.details["library"] = options.module;
  report.details["kind"] = kindOf(options.module);
  report.details["result"] = result;
  if (firmware[0] != '\0') {
    report.details["firmware"] = textOf(firmware);
  }
  if (result == 0) {
    report.details["version"] = textOf(version);
  }
  addModuleAnswers(report, options.module);
  report.body = describe(report.details);
  report.finding = {Outcome::Ok, options.module + " answered.", ""};
  if (result != 0) {
    report.finding = {
        Outcome::ModuleFailed,
        options.module + " could not tell its version: it answered " + std::to_string(result) + ".",
        "Check that the component is connected."};
  }
  return report;
}

}  // namespace tool
