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

std::string moduleOf(const ChildStory& story) {
  return story.module().empty() ? "A module" : story.module();
}

// Progress is asked for beside everything else: which of the two it was, nobody knows.
std::string whenCrashed(const ChildStory& story) {
  return wordsOf(story.step()) +
         std::string(story.isAskedForProgress() ? ", or when it was asked for its progress meanwhile" : "");
}

std::string alreadyUpdated(const ChildStory& story) {
  return story.hasUpdated(story.module()) ? " Its update had succeeded before." : "";
}

// Before an update, a module stands in the way of all others.
std::string remedyFor(const ChildStory& story) {
  const bool isBefore = story.step() == Step::Load || story.step() == Step::Version ||
                        story.step() == Step::Start || story.step() == Step::Check;
  if (isBefore && !story.hasUpdated(story.module())) {
    return "Nothing was written. Install a version of the module that fits this device, or remove the file; "
           "until then it may keep all modules from being used.";
  }
  if (story.module().empty()) {
    return "See the log (--log), and check the versions: fw-update list";
  }
  return "Its firmware may be the old one or the new one. Check the version with: fw-update info " +
         story.module();
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

Finding explainCrash(const ChildStory& story, int status) {
  const std::string end = " " + whenCrashed(story) + "." + alreadyUpdated(story);
  if (!WIFSIGNALED(status)) {
    return {
        Outcome::ModuleCrashed,
        moduleOf(story) + " ended the program with exit code " + std::to_string(WEXITSTATUS(status)) + end,
        remedyFor(story)};
  }
  const std::string signal = " (" + signalText(WTERMSIG(status)) + ")";
  if (isCrash(WTERMSIG(status))) {
    return {Outcome::ModuleCrashed, moduleOf(story) + " crashed" + signal + end, remedyFor(story)};
  }
  const std::string module = story.module().empty() ? "" : " for " + story.module();
  return {
      Outcome::ModuleCrashed, "The process that worked" + module + " was killed" + signal + end,
      "If nobody did it, the device may have run out of memory: see the kernel's log. " + remedyFor(story)};
}

Finding explainHang(const ChildStory& story, ChildStory::Seconds silence) {
  const std::string seconds = std::to_string(std::llround(silence.count()));
  return {Outcome::ModuleHung,
          moduleOf(story) + " hung " + wordsOf(story.step()) + ": nothing happened for " + seconds +
              " s, and the process was ended." + alreadyUpdated(story),
          remedyFor(story)};
}

}  // namespace tool
