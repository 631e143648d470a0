// SPDX-License-Identifier: Apache-2.0
// fw-update verify NAME --version TEXT
#include <array>
#include <cstring>
#include <optional>

#include "commands.h"
#include "library/library.h"
#include "report.h"

namespace tool {
namespace {

// Empty when it cannot be told; finding says why then.
std::optional<std::string> activeVersion(const std::string& module, Finding& finding) {
  const Library library = openLibrary();
  if (const auto problem = moduleProblem(library, module)) {
    finding = *problem;
    return std::nullopt;
  }
  std::array<char, 128> version{};
  std::array<char, 128> firmware{};
  const int result = library.facade->fw_getFWInformation(module.c_str(), version.data(), firmware.data());
  if (result != 0) {
    finding = unknownVersion(module, result);
    return std::nullopt;
  }
  return std::string(version.data(), ::strnlen(version.data(), version.size()));
}

Finding findingOf(const Options& options, const std::string& active) {
  const std::string seen = "Version " + active + " is active on " + options.module;
  if (active == options.version) {
    return {Outcome::Ok, seen + ".", ""};
  }
  return {Outcome::OtherVersion, seen + ", not " + options.version + ".",
          "Update it, and see why it does not take the image: fw-update update " + options.module};
}

}  // namespace

frame::Report runVerify(const Options& options) {
  Finding finding;
  const std::optional<std::string> active = activeVersion(options.module, finding);
  frame::Report report = reportOf(active ? findingOf(options, *active) : finding);
  report.details["module"] = options.module;
  report.details["expectedVersion"] = options.version;
  if (active) {
    report.details["version"] = *active;
  }
  return report;
}

}  // namespace tool
