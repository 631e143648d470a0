// SPDX-License-Identifier: Apache-2.0
// fw-update info NAME
#include <unistd.h>

#include <array>
#include <optional>

#include "commands.h"
#include "fw-update-symbol.h"
#include "isolation/supervised.h"
#include "library/hang-notice.h"
#include "library/library.h"
#include "report.h"
#include "terminal.h"

namespace tool {
namespace {

// Empty: the module does not tell.
struct Answers {
  std::string library;
  std::string firmware;
  int result = 0;  // of asking for the version
  std::optional<std::string> version;
  std::string package;
  std::optional<int> expectedSeconds;
  std::optional<unsigned int> progress;
};

std::string textOf(const std::array<char, 128>& buffer) {
  return std::string(buffer.data(), strnlen(buffer.data(), buffer.size()));
}

void askFacade(FWUpdateContorl& facade, Answers& answers) {
  std::array<char, 128> version{};
  std::array<char, 128> firmware{};
  answers.result = facade.fw_getFWInformation(answers.library.c_str(), version.data(), firmware.data());
  if (unsigned int percent = 0; facade.fw_getUpdateProgress(answers.library.c_str(), &percent) == 0) {
    answers.progress = percent;
  }
  answers.firmware = textOf(firmware);
  if (answers.result == 0) {
    answers.version = textOf(version);
  }
}

// The facade does not tell these; a record of its own asks the module.
void askModule(Answers& answers) {
  FWUpdateSymbol module(answers.library);
  if (module.loadSymbol(answers.library) != 0) {
    return;
  }
  if (int seconds = 0; module.getExpectedTime(&seconds) == 0) {
    answers.expectedSeconds = seconds;
  }
  answers.package = module.getEMPName();
}

Finding findingOf(const Answers& answers) {
  if (answers.result == 0) {
    return {Outcome::Ok, answers.library + " answered.", ""};
  }
  return unknownVersion(answers.library, answers.result);
}

std::string orElse(const std::string& text, const char* otherwise) {
  return text.empty() ? otherwise : text;
}

template <typename Number>
std::string orElse(const std::optional<Number>& number, const char* unit, const char* otherwise) {
  return number ? std::to_string(*number) + unit : otherwise;
}

std::string textOf(const Answers& answers) {
  return table({{"Library", answers.library},
                {"Firmware", orElse(answers.firmware, "-")},
                {"Version", answers.version.value_or("-")},
                {"Kind", kindOf(answers.library)},
                {"Package", orElse(answers.package, "none")},
                {"Takes about", orElse(answers.expectedSeconds, " s", "the module does not tell")},
                {"Progress", orElse(answers.progress, " %", "the module reports none")}},
               terminalWidth(STDOUT_FILENO));
}

Json::Value membersOf(const Answers& answers) {
  Json::Value members;
  members["library"] = answers.library;
  members["kind"] = kindOf(answers.library);
  members["result"] = answers.result;
  if (!answers.firmware.empty()) {
    members["firmware"] = answers.firmware;
  }
  if (answers.version) {
    members["version"] = *answers.version;
  }
  if (!answers.package.empty()) {
    members["package"] = answers.package;
  }
  if (answers.expectedSeconds) {
    members["expectedSeconds"] = *answers.expectedSeconds;
  }
  if (answers.progress) {
    members["progress"] = *answers.progress;
  }
  return members;
}

frame::Report reportOf(const Answers& answers) {
  frame::Report report = reportOf(findingOf(answers));
  report.details = membersOf(answers);
  report.body = textOf(answers);
  return report;
}

// A module that cannot be asked is only named.
frame::Report ask(const std::string& module) {
  const Library library = openLibraryTelling();
  if (const auto problem = moduleProblem(library, module)) {
    return reportOf(*problem);
  }
  const HangNotice notice(module);
  supervised::tellStep(Step::Version, module);
  Answers answers;
  answers.library = module;
  askFacade(*library.facade, answers);
  askModule(answers);
  return reportOf(answers);
}

}  // namespace

frame::Report runInfo(const Options& options) {
  frame::Report report = ask(options.module);
  report.details["module"] = options.module;
  return report;
}

}  // namespace tool
