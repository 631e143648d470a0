// SPDX-License-Identifier: Apache-2.0
// Who the module is: context, identifier, active version, expected time.
#include <algorithm>

#include "callers.h"
#include "module-names.h"
#include "trials.h"

namespace fwmodule {
namespace {

constexpr int kHour = 3600;
constexpr unsigned int kWhole = 100;
constexpr std::size_t kLongestText = 127;
constexpr char kFirst[] = "when it was asked for the first time";

bool isPrintable(const std::string& text) {
  return !text.empty() &&
         std::none_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; });
}

// What is wrong with an ordinary module's identifier, after "getEMPID wrote "; empty
// when nothing is.
std::string problemOf(const std::string& identifier) {
  if (identifier.empty()) {
    return "no identifier";
  }
  if (!fwnames::isPlainName(identifier)) {
    return "\"" + identifier + "\", which is not only letters and digits";
  }
  if (!fwnames::namesFirmware(identifier)) {
    return "\"" + identifier + "\", which has no \"emp\"";
  }
  return fwnames::firmwareNameOf(identifier).empty() ? "\"emp\", which leaves no name for the firmware" : "";
}

// Who asks for versions first, then the others, once each.
std::vector<CallerTypes> callerTypes() {
  std::vector<CallerTypes> types{CALLER_QUERY};
  for (const fwcallers::Caller& caller : fwcallers::kCallers) {
    if (std::find(types.begin(), types.end(), caller.type) == types.end()) {
      types.push_back(caller.type);
    }
  }
  return types;
}

void tryContexts(const Stage& stage) {
  const std::string requests[] = {"", "USB", fwcallers::kFactoryAutomation, std::string(kLongestText, 'x')};
  for (const CallerTypes caller : callerTypes()) {
    for (const std::string& request : requests) {
      const int result = stage.module.setContext(caller, request, "with a caller and request data");
      stage.transcript.judge(result == 0, Check::Context, EntryPoint::SetContext,
                             answered(EntryPoint::SetContext, result) + " for caller " +
                                 std::to_string(caller) + " with the request data \"" + request + "\".");
    }
  }
}

void tryIdentifier(const Stage& stage) {
  Transcript& transcript = stage.transcript;
  const std::string identifier = stage.module.getEmpId(kFirst).text;
  if (stage.subject.extension) {
    transcript.notChecked(Check::Identifier, "nobody asks an EXT- module for it");
    transcript.judge(identifier.empty(), Check::ExtensionIdentifier, EntryPoint::GetEmpId,
                     "getEMPID wrote \"" + identifier + "\", but the library name " + stage.subject.library +
                         " makes it a module with a procedure of its own.");
    return;
  }
  transcript.notChecked(Check::ExtensionIdentifier, "it is no EXT- module");
  const std::string problem = problemOf(identifier);
  transcript.judge(problem.empty(), Check::Identifier, EntryPoint::GetEmpId,
                   "getEMPID wrote " + problem + ".");
  if (problem.empty()) {
    transcript.fact(Fact::Identifier, identifier);
  }
}

void tryActiveVersion(const Stage& stage) {
  Transcript& transcript = stage.transcript;
  const TextAnswer version = stage.module.getActiveVersion(kFirst);
  if (version.result != 0) {
    transcript.finding(Check::ActiveVersion, EntryPoint::GetActiveVersion,
                       answered(EntryPoint::GetActiveVersion, version.result) + ".");
    return;
  }
  const std::string wrote =
      version.written ? "\"" + version.text + "\", which is no printable text" : "nothing";
  transcript.judge(isPrintable(version.text), Check::ActiveVersion, EntryPoint::GetActiveVersion,
                   "getActiveVersion answered 0 and wrote " + wrote + ".");
  if (isPrintable(version.text)) {
    transcript.fact(Fact::ActiveVersion, version.text);
  }
}

void tryExpectedTime(const Stage& stage) {
  Transcript& transcript = stage.transcript;
  if (!stage.module.has(EntryPoint::GetExpectedTime)) {
    transcript.notChecked(Check::ExpectedTimeLong, "it does not export getExpectedTime");
    if (stage.module.has(EntryPoint::DoUpdateDecryption) && !stage.subject.extension) {
      transcript.finding(Check::ExpectedTime, EntryPoint::GetExpectedTime,
                         "doUpdate_decryption is exported and getExpectedTime is not: no USB package is "
                         "ever applied.");
    } else {
      transcript.notChecked(Check::ExpectedTime, "it does not export getExpectedTime");
    }
    return;
  }
  const auto seconds = stage.module.getExpectedTime(kFirst);
  const std::string wrote =
      seconds.written ? " and wrote " + std::to_string(seconds.value) : " and wrote nothing";
  transcript.judge(seconds.result == 0 && seconds.value > 0, Check::ExpectedTime, EntryPoint::GetExpectedTime,
                   answered(EntryPoint::GetExpectedTime, seconds.result) + wrote + ".");
  transcript.judge(seconds.value <= kHour, Check::ExpectedTimeLong, EntryPoint::GetExpectedTime,
                   "getExpectedTime wrote " + std::to_string(seconds.value) + " seconds.");
}

void tryProgress(const Stage& stage) {
  if (!stage.module.has(EntryPoint::GetUpdateProgress)) {
    stage.transcript.notChecked(Check::ProgressRange, "it does not export getUpdateProgress");
    return;
  }
  const auto progress = stage.module.getUpdateProgress("before any update");
  stage.transcript.judge(progress.result != 0 || progress.value <= kWhole, Check::ProgressRange,
                         EntryPoint::GetUpdateProgress,
                         "getUpdateProgress wrote " + std::to_string(progress.value) + " before any update.");
}

}  // namespace

void tryIdentity(const Stage& stage) {
  tryContexts(stage);
  tryActiveVersion(stage);
  tryIdentifier(stage);
  tryExpectedTime(stage);
  tryProgress(stage);
}

}  // namespace fwmodule
