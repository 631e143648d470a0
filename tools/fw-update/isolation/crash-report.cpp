// SPDX-License-Identifier: Apache-2.0
#include "isolation/crash-report.h"

#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstring>
#include <iterator>

namespace tool {
namespace {

// What a program's own mistakes end it with.
constexpr int kCrashes[] = {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS};

bool isCrash(int signal) {
  return std::find(std::begin(kCrashes), std::end(kCrashes), signal) != std::end(kCrashes);
}

std::string subjectOf(const ChildRecord& child) {
  return moduleOf(child).empty() ? "A module" : moduleOf(child);
}

// Progress is asked for beside everything else: which of the two it was, nobody knows.
std::string whenCrashed(const ChildRecord& child) {
  return wordsOf(child.step) +
         std::string(child.askedForProgress != 0 ? ", or when it was asked for its progress meanwhile" : "");
}

std::string alreadyUpdated(const ChildRecord& child) {
  return child.updated != 0 ? " Its update had succeeded before." : "";
}

// Before an update, a module stands in the way of all others.
std::string remedyFor(const ChildRecord& child) {
  const bool isBefore = child.step == Step::Load || child.step == Step::Version ||
                        child.step == Step::Start || child.step == Step::Check;
  if (isBefore && child.updated == 0) {
    return "Nothing was written. Install a version of the module that fits this device, or remove the file; "
           "until then it may keep all modules from being used.";
  }
  if (moduleOf(child).empty()) {
    return "See the log (--log), and check the versions: fw-update list";
  }
  return "Its firmware may be the old one or the new one. Check the version with: fw-update info " +
         moduleOf(child);
}

std::string signalText(int signal) {
  const char* const description = sigdescr_np(signal);
  return signalName(signal) + (description != nullptr ? std::string(", ") + description : "");
}

}  // namespace

std::string signalName(int signal) {
  const char* const name = sigabbrev_np(signal);
  return name != nullptr ? std::string("SIG") + name : "signal " + std::to_string(signal);
}

Finding explainCrash(const ChildRecord& child, int status) {
  const std::string end = " " + whenCrashed(child) + "." + alreadyUpdated(child);
  if (!WIFSIGNALED(status)) {
    return {
        Outcome::ModuleCrashed,
        subjectOf(child) + " ended the program with exit code " + std::to_string(WEXITSTATUS(status)) + end,
        remedyFor(child)};
  }
  const std::string signal = " (" + signalText(WTERMSIG(status)) + ")";
  if (isCrash(WTERMSIG(status))) {
    return {Outcome::ModuleCrashed, subjectOf(child) + " crashed" + signal + end, remedyFor(child)};
  }
  const std::string module = moduleOf(child).empty() ? "" : " for " + moduleOf(child);
  return {
      Outcome::ModuleCrashed, "The process that worked" + module + " was killed" + signal + end,
      "If nobody did it, the device may have run out of memory: see the kernel's log. " + remedyFor(child)};
}

Finding explainHang(const ChildRecord& child, Seconds silence) {
  const std::string seconds = std::to_string(std::llround(silence.count()));
  return {Outcome::ModuleHung,
          subjectOf(child) + " hung " + wordsOf(child.step) + ": nothing happened for " + seconds +
              " s, and the process was ended." + alreadyUpdated(child),
          remedyFor(child)};
}

}  // namespace tool
