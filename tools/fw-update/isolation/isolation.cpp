// SPDX-License-Identifier: Apache-2.0
#include "isolation/isolation.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <iostream>

#include "clean-output.h"
#include "fw-update-mount-manager.h"
#include "isolation/child-process.h"
#include "isolation/crash-report.h"
#include "isolation/dead-process-log.h"
#include "isolation/left-mounts.h"
#include "isolation/supervised.h"
#include "lock/lock-recovery.h"
#include "progress/telling.h"
#include "report.h"
#include "terminal.h"
#include "update-all/run-note.h"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kGlance{100};
// Longer, this process did not run either, and the silence is not the child's.
constexpr std::chrono::milliseconds kLongestGlance{500};
// For a child that was killed, and that the kernel may hold back.
constexpr std::chrono::seconds kLastPatience{5};
// The first signal is the child's to deal with; it ends an update, and lets an
// update-all come to its end.
constexpr int kSignalsThatKill = 3;

class Watch {
 public:
  explicit Watch(const Options& options) : patience_(options.patience), child_(options.module) {}

  // Until the child has ended, or does not even end when it is killed.
  void run() {
    while (!child_.status()) {
      const auto before = Clock::now();
      glance(kGlance);
      silence_ += std::min<Seconds>(Clock::now() - before, kLongestGlance);
      const auto allowed = allowedSilence(child_.record(), patience_);
      if (!hung_ && allowed && silence_ > *allowed) {
        hung_ = silence_;
        child_.kill(SIGKILL);
      }
      if (hung_ && silence_ > *hung_ + Seconds(kLastPatience)) {
        break;
      }
    }
    glance(std::chrono::milliseconds(0));
  }

  // In the child, which is watched from now on.
  bool isChild() {
    if (child_.isChild()) {
      supervised::begin(child_.keepRecord());
    }
    return child_.isChild();
  }
  const ChildRecord& record() const { return child_.record(); }
  std::optional<int> status() { return child_.status(); }
  std::optional<Seconds> hungFor() const { return hung_; }
  pid_t process() const { return child_.id(); }
  // The last signal that was to end the command; 0: none.
  int signal() const { return lastSignal_; }

 private:
  // Being asked for its progress is no sign that a module gets on.
  void glance(std::chrono::milliseconds atMost) {
    child_.wait(atMost, [this](int one, bool fromTerminal) { passOn(one, fromTerminal); });
    const std::uint32_t told = child_.record().told;
    if (told != told_ && !hung_) {
      silence_ = Seconds(0);
    }
    told_ = told;
  }

  void passOn(int one, bool fromTerminal) {
    lastSignal_ = one;
    if (++signals_ >= kSignalsThatKill) {
      child_.kill(SIGKILL);
    } else if (!fromTerminal) {
      child_.kill(one);
    }
  }

  const Seconds patience_;
  ChildProcess child_;
  std::uint32_t told_ = 0;
  Seconds silence_{0};
  std::optional<Seconds> hung_;
  int signals_ = 0;
  int lastSignal_ = 0;
};

struct CleanedUp {
  std::optional<Recovery> lock;  // when the child may have held it
  std::vector<std::string> unmounted;
  std::vector<std::string> left;  // still mounted
};

// Another update may count on a package that is mounted; it is left then.
void unmount(const std::vector<std::string>& directories, CleanedUp& cleaned) {
  const UpdateLock lock;
  const bool othersUpdate = lock.error() == 0 && (!findLockUsers(lock).users.empty());
  for (const std::string& directory : directories) {
    const bool gone = !othersUpdate && FWMountManager::getInstance()->UMount(directory) == 0;
    (gone ? cleaned.unmounted : cleaned.left).push_back(directory);
  }
}

CleanedUp cleanUp(const ChildRecord& child, const std::set<std::string>& mountedBefore) {
  CleanedUp cleaned;
  if (child.usedLock != 0) {
    cleaned.lock = recoverUpdateLock(false);
  }
  unmount(leftMounts(mountedBy(child), mountedBefore), cleaned);
  return cleaned;
}

std::string listOf(const std::vector<std::string>& names) {
  std::string list;
  for (const std::string& name : names) {
    list += (list.empty() ? "" : ", ") + name;
  }
  return list;
}

bool isGivenBack(const CleanedUp& cleaned) {
  return cleaned.lock && cleaned.lock->result == RecoveryResult::GivenBack;
}

// A child that waited for the lock leaves it to those that have it.
bool isLeftTaken(const CleanedUp& cleaned, const ChildRecord& child) {
  return cleaned.lock && child.step == Step::Write && !isGivenBack(cleaned) &&
         cleaned.lock->result != RecoveryResult::Free;
}

void tellCleanUp(Finding& finding, const CleanedUp& cleaned, const ChildRecord& child) {
  if (isGivenBack(cleaned)) {
    finding.message += " It held the update lock, which was given back.";
  }
  if (isLeftTaken(cleaned, child)) {
    finding.message += " It held the update lock. " + explainRecovery(*cleaned.lock).message;
    finding.remedy += " Give the lock back when no other update runs: fw-update lock recover";
  }
  if (!cleaned.unmounted.empty()) {
    finding.message += " Unmounted: " + listOf(cleaned.unmounted) + ".";
  }
  if (!cleaned.left.empty()) {
    finding.message += " Left mounted: " + listOf(cleaned.left) + ".";
  }
}

void addList(Json::Value& members, const char* name, const std::vector<std::string>& directories) {
  for (const std::string& directory : directories) {
    members[name].append(directory);
  }
}

// The same for programs.
void addTo(Json::Value& members, const CleanedUp& cleaned, const ChildRecord& child) {
  if (!moduleOf(child).empty()) {
    members["module"] = moduleOf(child);
  }
  members["step"] = idOf(child.step);
  if (isGivenBack(cleaned)) {
    members["lock"] = "given-back";
  }
  if (isLeftTaken(cleaned, child)) {
    members["lock"] = "left-taken";
  }
  addList(members, "unmounted", cleaned.unmounted);
  addList(members, "leftMounted", cleaned.left);
}

// The run that the child was at has left a note for the next command to tell: this one
// tells it.
void tellRun(Finding& finding) {
  if (takeInterruptedRun()) {
    finding.remedy +=
        " The run over all modules ended there; run it again for what is left: fw-update update-all";
  }
}

Finding explain(Watch& watch) {
  return watch.hungFor() ? explainHang(watch.record(), *watch.hungFor())
                         : explainCrash(watch.record(), watch.status().value_or(0));
}

frame::Report reportOf(Watch& watch, const CleanedUp& cleaned) {
  const ChildRecord& child = watch.record();
  const auto status = watch.status();
  Finding finding = explain(watch);
  if (!status) {
    finding.message +=
        " The kernel does not end it: process " + std::to_string(watch.process()) + " is still there.";
  }
  tellCleanUp(finding, cleaned, child);
  tellRun(finding);
  frame::Report report = reportOf(finding);
  if (status && !watch.hungFor() && WIFSIGNALED(*status)) {
    report.details["signal"] = signalName(WTERMSIG(*status));
  }
  if (!watch.hungFor() && child.askedForProgress != 0) {
    report.details["askedForProgress"] = true;
  }
  addTo(report.details, cleaned, child);
  return report;
}

// Its result is out: what comes now changes nothing about it.
void warn(Watch& watch) {
  const std::string text = "fw-update: warning: " + explain(watch).message;
  std::cerr << wrapped(text, terminalWidth(STDERR_FILENO)) << std::endl;
}

// Whether the child ended as its own signal or this process's made it.
bool isInterrupted(Watch& watch) {
  const auto status = watch.status();
  return watch.signal() != 0 && !watch.hungFor() && status && WIFSIGNALED(*status) &&
         (WTERMSIG(*status) == watch.signal() || WTERMSIG(*status) == SIGKILL);
}

bool isClean(Watch& watch, int exitCode) {
  const auto status = watch.status();
  return status && WIFEXITED(*status) && WEXITSTATUS(*status) == exitCode;
}

}  // namespace

IsolatedEnd runIsolated(const Options& options) {
  const std::set<std::string> mountedBefore = mountedPackages();
  Watch watch(options);
  IsolatedEnd end;
  end.isChild = watch.isChild();
  if (end.isChild) {
    return end;
  }
  watch.run();
  const auto result = resultOf(watch.record());
  if (result && isClean(watch, *result)) {
    end.exitCode = *result;
    return end;
  }
  if (hasLiveLine()) {
    std::cout << base::emptyLine() << std::flush;
  }
  const CleanedUp cleaned = cleanUp(watch.record(), mountedBefore);
  if (result) {
    warn(watch);
    end.exitCode = *result;
  } else if (isInterrupted(watch)) {
    end.signal = watch.signal();
  } else {
    end.report = reportOf(watch, cleaned);
    end.log = options.log ? logOfDeadProcess(watch.process()) : LogMessages();
  }
  return end;
}

}  // namespace tool
