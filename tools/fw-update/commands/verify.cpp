// SPDX-License-Identifier: Apache-2.0
// fw-update verify NAME --version TEXT
#include <array>
#include <cstring>
#include <optional>

#include "commands.h"
#include "isolation/supervised.h"
#include "library/hang-notice.h"
#include "library/library.h"
#include "record/image-facts.h"
#include "report.h"

namespace tool {
namespace {

struct Active {
  std::string version;
  std::string firmware;
};

template <std::size_t Size>
std::string textOf(const std::array<char, Size>& buffer) {
  return std::string(buffer.data(), ::strnlen(buffer.data(), buffer.size()));
}

// Empty when it cannot be told; finding says why then.
std::optional<Active> activeVersion(const std::string& module, Finding& finding) {
  const Library library = openLibraryTelling();
  if (const auto problem = moduleProblem(library, module)) {
    finding = *problem;
    return std::nullopt;
  }
  const HangNotice notice(module);
  supervised::tellStep(Step::Version, module);
  std::array<char, 128> version{};
  std::array<char, 128> firmware{};
  const int result = library.facade->fw_getFWInformation(module.c_str(), version.data(), firmware.data());
  if (result != 0) {
    finding = unknownVersion(module, result);
    return std::nullopt;
  }
  return Active{textOf(version), textOf(firmware)};
}

// Whose image is of this version; empty when nobody's is that can be looked at.
std::string callerOffering(const std::string& version, const std::string& firmware) {
  for (const fwcallers::Caller& caller : fwcallers::kCallers) {
    const auto offered = caller.name != nullptr && caller.fixedData == nullptr
                             ? offeredImage(firmware, caller.images)
                             : std::nullopt;
    if (offered && offered->version == version) {
      return caller.name;
    }
  }
  return "";
}

std::string remedyFor(const Options& options, const std::string& firmware) {
  const std::string command = "fw-update update " + options.module + " --caller ";
  const std::string caller = callerOffering(options.version, firmware);
  return caller.empty()
             ? "No image of this version was found. Install it where its caller takes images from, then: " +
                   command + "NAME"
             : "Update it, and see why it does not take the image: " + command + caller;
}

Finding findingOf(const Options& options, const Active& active) {
  if (active.version == options.version) {
    return {Outcome::Ok, "Version " + active.version + " is active on " + options.module + ".", ""};
  }
  return {Outcome::OtherVersion,
          "Version " + active.version + " is active on " + options.module + ", not " + options.version + ".",
          remedyFor(options, active.firmware)};
}

}  // namespace

frame::Report runVerify(const Options& options) {
  Finding finding;
  const std::optional<Active> active = activeVersion(options.module, finding);
  frame::Report report = reportOf(active ? findingOf(options, *active) : finding);
  report.details["module"] = options.module;
  report.details["expectedVersion"] = options.version;
  if (active) {
    report.details["version"] = active->version;
  }
  return report;
}

}  // namespace tool
