// SPDX-License-Identifier: Apache-2.0
#include "inspection.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <optional>

#include "module-file.h"
#include "module-names.h"

namespace fwmodule {
namespace {

using State = CheckResult::State;

constexpr std::size_t kLongestName = 127;
constexpr std::size_t kNamed = 5;  // of many symbols

// Decided wherever the module's code runs, and passed when nothing was found.
constexpr CheckSet kEverywhere = decidesOn(Check::Crash, Check::Hang, Check::Exception, Check::Exit,
                                           Check::Overrun, Check::TextKept, Check::Processes, Check::Prints);

// Symbols that the linker puts in by itself.
constexpr const char* kLinkerSymbols[] = {"_init", "_fini", "_edata", "_end", "__bss_start"};

class Inspection {
 public:
  Inspection(Subject subject, std::chrono::seconds limit) : limit_(limit) {
    report_.subject = std::move(subject);
  }

  Report run(const std::function<void(const std::string& what)>& progress);

 private:
  bool inspectFile();
  void inspectName();
  void inspectEntryPoints(const ModuleFile& file);
  void inspectExports(const ModuleFile& file);
  void tryOut(const Trial& trial);
  std::optional<std::string> obstacleTo(const Trial& trial) const;
  void learn(const TrialResult& result);
  void finish();

  CheckResult& resultOf(Check check) { return report_.results[static_cast<std::size_t>(check)]; }
  void judge(bool good, const Finding& finding);
  void add(const Finding& finding);
  void pass(Check check);
  void leaveOut(Check check, const std::string& reason);
  void leaveOut(const Trial& trial, const std::string& reason);

  Report report_;
  const std::chrono::seconds limit_;
  std::string cutOff_;
  bool tried_ = false;
};

// ---- Results ------------------------------------------------------------------------------

// One finding for each entry point: the same one comes back in trial after trial.
void Inspection::add(const Finding& finding) {
  CheckResult& result = resultOf(finding.check);
  result.state = State::Failed;
  const bool known = std::any_of(result.findings.begin(), result.findings.end(), [&](const Finding& other) {
    return other.entryPoint == finding.entryPoint;
  });
  if (!known) {
    result.findings.push_back(finding);
  }
}

void Inspection::pass(Check check) {
  if (resultOf(check).state != State::Failed) {
    resultOf(check).state = State::Passed;
  }
}

void Inspection::leaveOut(Check check, const std::string& reason) {
  if (resultOf(check).state == State::NotChecked && resultOf(check).reason.empty()) {
    resultOf(check).reason = reason;
  }
}

void Inspection::leaveOut(const Trial& trial, const std::string& reason) {
  for (const CheckInfo& info : kChecks) {
    if (contains(trial.decides, info.check)) {
      leaveOut(info.check, reason);
    }
  }
}

void Inspection::judge(bool good, const Finding& finding) {
  if (good) {
    pass(finding.check);
  } else {
    add(finding);
  }
}

// ---- The file -----------------------------------------------------------------------------

void Inspection::inspectName() {
  const Subject& subject = report_.subject;
  const std::string file = std::filesystem::path(subject.path).filename();
  const bool good = std::filesystem::path(file).extension() == ".so" && !subject.library.empty() &&
                    subject.library.size() <= kLongestName;
  judge(good, {Check::Name, EntryPoint::Nowhere, "The file is called " + file + "."});
  const bool meant = !subject.extension || subject.library.find("EXT-") != std::string::npos;
  judge(meant, {Check::ExtensionCase, EntryPoint::Nowhere,
                "The name " + subject.library +
                    " makes it a module with a procedure of its own, although \"EXT-\" is not in capitals."});
}

// Whether the symbol is the entry point compiled as a C++ function, as "_Z8getEMPIDPc" is.
bool isMangled(const std::string& symbol, const std::string& entryPoint) {
  const std::string mangled = "_Z" + std::to_string(entryPoint.size()) + entryPoint;
  return symbol.compare(0, mangled.size(), mangled) == 0;
}

std::string mangledExport(const ModuleFile& file, const std::string& entryPoint) {
  for (const Export& symbol : file.exports) {
    if (isMangled(symbol.name, entryPoint)) {
      return symbol.name;
    }
  }
  return "";
}

const Export* findExport(const ModuleFile& file, const std::string& name) {
  const auto found = std::find_if(file.exports.begin(), file.exports.end(),
                                  [&](const Export& symbol) { return symbol.name == name; });
  return found == file.exports.end() ? nullptr : &*found;
}

void Inspection::inspectEntryPoints(const ModuleFile& file) {
  pass(Check::EntryPoints);
  pass(Check::EntryPointKind);
  for (const EntryPointInfo& entry : kEntryPoints) {
    const Export* const symbol = entry.exported ? findExport(file, entry.name) : nullptr;
    const std::string mangled = entry.exported ? mangledExport(file, entry.name) : "";
    if (symbol != nullptr) {
      judge(symbol->function, {Check::EntryPointKind, entry.entryPoint,
                               std::string(entry.name) + " is exported, but as data."});
    } else if (!mangled.empty()) {
      add({Check::EntryPoints, entry.entryPoint,
           std::string(entry.name) + " is exported as the C++ function " + mangled +
               ": it lacks extern \"C\", or has other parameters than in fw-update-module.h."});
    } else if (entry.required) {
      add({Check::EntryPoints, entry.entryPoint, std::string(entry.name) + " is not exported."});
    }
  }
}

bool isEntryPoint(const std::string& name) {
  return std::any_of(std::begin(kEntryPoints), std::end(kEntryPoints), [&](const EntryPointInfo& entry) {
    return entry.exported && (name == entry.name || isMangled(name, entry.name));
  });
}

void Inspection::inspectExports(const ModuleFile& file) {
  std::string others;
  std::size_t count = 0;
  for (const Export& symbol : file.exports) {
    const bool linker = std::find(std::begin(kLinkerSymbols), std::end(kLinkerSymbols), symbol.name) !=
                        std::end(kLinkerSymbols);
    if (linker || isEntryPoint(symbol.name)) {
      continue;
    }
    if (++count <= kNamed) {
      others += (others.empty() ? "" : ", ") + symbol.name;
    }
  }
  if (count > kNamed) {
    others += " and " + std::to_string(count - kNamed) + " more";
  }
  judge(others.empty(), {Check::Exports, EntryPoint::Nowhere, "It also exports " + others + "."});
  const bool linked = std::any_of(file.needed.begin(), file.needed.end(), [](const std::string& library) {
    return library.find("libfw-update-control.so") == 0;
  });
  judge(!linked, {Check::Needed, EntryPoint::Nowhere, "It needs libfw-update-control.so."});
}

// Whether the module's code can be run.
bool Inspection::inspectFile() {
  inspectName();
  const ModuleFile file = readModuleFile(report_.subject.bytes);
  judge(file.problem.empty(), {Check::Library, EntryPoint::Nowhere, file.problem});
  if (!file.problem.empty()) {
    cutOff_ = file.problem;
    return false;
  }
  inspectEntryPoints(file);
  inspectExports(file);
  if (resultOf(Check::EntryPoints).state == State::Passed &&
      resultOf(Check::EntryPointKind).state == State::Passed) {
    return true;
  }
  cutOff_ = "the update library does not use it without all entry points";
  return false;
}

// ---- The trials ---------------------------------------------------------------------------

std::optional<std::string> Inspection::obstacleTo(const Trial& trial) const {
  if ((trial.calls & report_.subject.broken) != 0) {
    return cutOff_;
  }
  const char* const obstacle = trial.obstacle(report_.subject);
  return obstacle != nullptr ? std::optional<std::string>(obstacle) : std::nullopt;
}

void Inspection::learn(const TrialResult& result) {
  Subject& subject = report_.subject;
  for (const auto& [fact, value] : result.facts) {
    if (fact == Fact::Identifier) {
      subject.identifier = value;
      subject.firmware = fwnames::firmwareNameOf(value);
    }
    if (fact == Fact::ActiveVersion) {
      subject.activeVersion = value;
    }
    if (fact == Fact::NewerVersion) {
      subject.newerVersion = value;
    }
    if (fact == Fact::Updates) {
      subject.updates = true;
    }
  }
}

void Inspection::tryOut(const Trial& trial) {
  const TrialResult result = runTrial(trial, report_.subject, limit_);
  tried_ = true;
  for (const Check check : result.passed) {
    pass(check);
  }
  for (const Finding& finding : result.findings) {
    add(finding);
  }
  for (const auto& [check, reason] : result.notChecked) {
    leaveOut(check, reason);
  }
  learn(result);
  if (result.cutOff.empty()) {
    return;
  }
  leaveOut(trial, result.cutOff);
  report_.subject.broken |= callsTo(result.broken);
  cutOff_ = result.cutOff;
}

void Inspection::finish() {
  for (const CheckInfo& info : kChecks) {
    if (tried_ && contains(kEverywhere, info.check)) {
      pass(info.check);
    }
    leaveOut(info.check, cutOff_.empty() ? "the trial did not come to it" : cutOff_);
    if (resultOf(info.check).state != State::NotChecked) {
      resultOf(info.check).reason.clear();
    }
  }
}

Report Inspection::run(const std::function<void(const std::string& what)>& progress) {
  const bool runnable = inspectFile();
  for (const Trial& trial : kTrials) {
    if (!runnable) {
      break;
    }
    if (const auto obstacle = obstacleTo(trial)) {
      leaveOut(trial, *obstacle);
      continue;
    }
    progress(trial.title);
    tryOut(trial);
  }
  finish();
  return std::move(report_);
}

}  // namespace

Report inspect(Subject subject, std::chrono::seconds limit,
               const std::function<void(const std::string& what)>& progress) {
  return Inspection(std::move(subject), limit).run(progress);
}

}  // namespace fwmodule
