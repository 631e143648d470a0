// SPDX-License-Identifier: Apache-2.0
// fw-platform-check: does a platform library keep what the update library relies on?
#include <cxxabi.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "checks.h"
#include "file-descriptor.h"
#include "frame/program.h"
#include "interrupted.h"
#include "module-names.h"
#include "program-start.h"
#include "runner.h"
#include "system-error.h"
#include "whole-file.h"

namespace conformance {
namespace {

enum class Outcome { Kept, Broken, Usage, Unexpected };

constexpr frame::OutcomeInfo kOutcomes[] = {
    {"ok", 0, "all is kept, or not checked", frame::Tone::Answer},
    {"broken", 1, "something is broken", frame::Tone::Failure},
    {"usage", 2, "usage", frame::Tone::Failure},
    {"unexpected-error", 1, nullptr, frame::Tone::Failure},
};

constexpr const frame::OutcomeInfo& infoOf(Outcome outcome) {
  return kOutcomes[static_cast<std::size_t>(outcome)];
}

struct Options {
  bool json = false;
  std::string library;
  std::string area;
  int seconds = 20;  // for each check
  std::string unsignedPackage;
  bool secure = false;
};

std::vector<std::string> areas() {
  std::vector<std::string> names;
  for (const Check& check : kChecks) {
    if (names.empty() || names.back() != check.area) {
      names.emplace_back(check.area);
    }
  }
  return names;
}

std::string areaProblem(const std::string& name) {
  for (const std::string& area : areas()) {
    if (name == area) {
      return "";
    }
  }
  return "there is no area " + name;
}

void settle(Options& options) {
  if (options.secure && !(options.area.empty() && options.library.empty())) {
    throw frame::UsageError("--secure looks at the set, not at an area of a library");
  }
  if (!options.unsignedPackage.empty() && !fwnames::isPackageName(options.unsignedPackage)) {
    throw frame::UsageError("a package's identifier is 1 to 127 letters and digits");
  }
}

constexpr std::size_t kLongestWords = std::size_t{1} << 20;  // of the loader

// As people call it; empty when the loader's line is about something else.
std::string undefinedIn(const std::string& line) {
  constexpr std::string_view kStart = "undefined symbol: ";
  if (line.compare(0, kStart.size(), kStart) != 0) {
    return "";
  }
  const std::string name = line.substr(kStart.size(), line.find('\t') - kStart.size());
  const std::unique_ptr<char, decltype(&std::free)> readable(
      abi::__cxa_demangle(name.c_str(), nullptr, nullptr, nullptr), &std::free);
  const std::string call = readable ? readable.get() : name;
  return call.substr(0, call.find('('));
}

// What the loader says of this program with that library before the installed one: a line
// for each call that is missing, and one when it cannot take the library.
std::string loaderWords(const std::string& library) {
  const base::FileDescriptor words(memfd_create("loader", MFD_CLOEXEC));
  std::vector<std::string> environment = base::environmentWithout("LD_PRELOAD");
  environment.insert(environment.end(), {"LD_PRELOAD=" + library, "LD_TRACE_LOADED_OBJECTS=1", "LD_WARN=yes",
                                         "LD_BIND_NOW=yes"});
  pid_t loader = 0;
  base::ProgramStart start;
  // Not /dev/null: a set whose /dev lacks its nodes is looked at, too.
  const base::FileDescriptor libraries(memfd_create("libraries", MFD_CLOEXEC));
  start.with(libraries.get(), STDOUT_FILENO).with(words.get(), STDERR_FILENO);
  std::string text;
  if (start.run({"/proc/self/exe"}, environment, loader) != 0 || base::waitForEnd(loader) != 0 ||
      lseek(words.get(), 0, SEEK_SET) != 0 || base::readToEnd(words.get(), kLongestWords, text) != 0) {
    throw frame::Failure(Outcome::Unexpected, "the loader does not say what " + library + " lacks");
  }
  return text;
}

Finding callsOf(const std::string& library) {
  std::istringstream words(loaderWords(library));
  std::string missing;
  for (std::string line; std::getline(words, line);) {
    if (line.find("cannot be preloaded") != std::string::npos) {
      return broken("the loader cannot take it: " + line.substr(std::min(line.find("object"), line.size())));
    }
    if (const std::string name = undefinedIn(line); !name.empty()) {
      missing += (missing.empty() ? "" : ", ") + name;
    }
  }
  return missing.empty() ? kept() : broken("it lacks " + missing);
}

char** ownArguments = nullptr;  // to start the program with once more

struct Result {
  const Check* check;
  Finding finding;
};

struct VerdictName {
  const char* text;
  const char* id;
};

constexpr VerdictName kVerdicts[] = {{"kept", "kept"}, {"BROKEN", "broken"}, {"not checked", "notChecked"}};

const VerdictName& nameOf(const Finding& finding) {
  return kVerdicts[static_cast<std::size_t>(finding.verdict)];
}

void show(const Result& result) {
  std::cout << std::left << std::setw(9) << result.check->area << ' ' << std::setw(12)
            << nameOf(result.finding).text << ' ' << result.check->promise << '\n';
  if (!result.finding.sentence.empty()) {
    std::cout << std::string(23, ' ') << result.finding.sentence << '\n';
  }
  std::cout << std::flush;
}

Json::Value jsonOf(const Result& result) {
  Json::Value json;
  json["area"] = result.check->area;
  json["promise"] = result.check->promise;
  json["verdict"] = nameOf(result.finding).id;
  if (!result.finding.sentence.empty()) {
    json["sentence"] = result.finding.sentence;
  }
  return json;
}

// Areas of which nothing is known in the end: what was not checked is no promise kept.
std::vector<std::string> unseenAreas(const std::vector<Result>& results) {
  std::vector<std::string> areas;
  std::set<std::string> seen;
  for (const Result& result : results) {
    const std::string area = result.check->area;
    if (result.finding.verdict != Verdict::NotChecked) {
      seen.insert(area);
    }
    if (std::find(areas.begin(), areas.end(), area) == areas.end()) {
      areas.push_back(area);
    }
  }
  areas.erase(
      std::remove_if(areas.begin(), areas.end(), [&seen](const auto& area) { return seen.count(area) != 0; }),
      areas.end());
  return areas;
}

frame::Report reportOf(const std::vector<Result>& results) {
  int counts[std::size(kVerdicts)] = {};
  Json::Value list(Json::arrayValue);
  for (const Result& result : results) {
    ++counts[static_cast<std::size_t>(result.finding.verdict)];
    list.append(jsonOf(result));
  }
  frame::Report report(counts[static_cast<std::size_t>(Verdict::Broken)] == 0 ? Outcome::Kept
                                                                              : Outcome::Broken);
  report.details["checks"] = list;
  for (std::size_t i = 0; i < std::size(kVerdicts); ++i) {
    report.details[kVerdicts[i].id] = counts[i];
  }
  report.body = std::to_string(counts[0]) + " kept, " + std::to_string(counts[1]) + " broken, " +
                std::to_string(counts[2]) + " not checked\n";
  const std::vector<std::string> unseen = unseenAreas(results);
  report.details["unseen"] = Json::Value(Json::arrayValue);
  for (const std::string& area : unseen) {
    report.details["unseen"].append(area);
    report.body += (area == unseen.front() ? "nothing could be seen here of: " : ", ") + area;
  }
  report.body += unseen.empty() ? "" : "\n";
  return report;
}

constexpr char kTaken[] = "FW_PLATFORM_CHECK_LIBRARY";

// A library that is loaded first takes the installed one's place. So the program
// starts itself once more.
[[noreturn]] void startWith(const std::string& library) {
  setenv(kTaken, library.c_str(), 1);
  setenv("LD_PRELOAD", library.c_str(), 1);
  execv("/proc/self/exe", ownArguments);
  throw frame::Failure(Outcome::Usage, "the program cannot start itself again: " + base::errnoText(errno));
}

std::string realPath(const std::string& path) {
  const std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr), &std::free);
  if (!real) {
    throw frame::Failure(Outcome::Usage, path + ": " + base::errnoText(errno),
                         "Try: fw-platform-check --help");
  }
  return real.get();
}

// Without one of the calls the program would not start.
frame::Report checkWithLibrary(const Options& options) {
  static constexpr Check kCheck = {"library", "has every call of the platform", nullptr};
  const std::string library = realPath(options.library);
  const Result result{&kCheck, callsOf(library)};
  if (result.finding.verdict == Verdict::Kept) {
    startWith(library);
  }
  if (!options.json) {
    show(result);
  }
  return reportOf({result});
}

// Text says at once what each check has found: they take their time.
template <std::size_t Size>
frame::Report checkAll(const Check (&checks)[Size], const Options& options) {
  std::vector<Result> results;
  for (const Check& check : checks) {
    if (!options.area.empty() && options.area != check.area) {
      continue;
    }
    results.push_back({&check, runApart(check, options.seconds)});
    if (const int signal = interruption(); signal != 0) {
      throw tool::Interrupted(signal);
    }
    if (!options.json) {
      show(results.back());
    }
  }
  return reportOf(results);
}

}  // namespace

SetFacts& setFacts() {
  static SetFacts facts;
  return facts;
}

namespace {

frame::Report run(const Options& options) {
  if (!options.library.empty() && std::getenv(kTaken) == nullptr) {
    return checkWithLibrary(options);
  }
  unsetenv("LD_PRELOAD");  // not for what the library starts
  catchInterruptions();
  setFacts() = {options.unsignedPackage, options.seconds};
  return options.secure ? checkAll(kSecurityChecks, options) : checkAll(kChecks, options);
}

std::string remark() {
  return "Run it on the set, as the user that updates run as. It mounts a package of its\n"
         "own, holds the power for a moment and signals events that nobody waits for.\n";
}

using Option = frame::Option<Options>;

constexpr Option kOptions[] = {
    {"--library FILE", &Options::library, "The platform library to check; default: the installed one"},
    Option("--only AREA", &Options::area, "").checked(areaProblem).of(areas),
    {"--secure", &Options::secure, "Check instead, as root, that this set uses nothing unsigned"},
    Option("--timeout S", &Options::seconds, "Give up a check after so many seconds; default: 20")
        .within(1, 3600),
    {"--unsigned-package ID", &Options::unsignedPackage,
     "What the server offers without a signature; it must be refused"},
};

constexpr char kSummary[] = "Checks that a platform library keeps what the update library relies on.";

constexpr frame::Command<Options> kCommands[] = {
    {{"", kSummary, "fw-platform-check --library ./libfw-platform.so.1", remark}, {kOptions}, run, settle},
};

constexpr frame::Program<Options> kProgram = {
    {"fw-platform-check", kSummary, "", kOutcomes, Outcome::Usage, Outcome::Unexpected, 18},
    {},
    kCommands,
};

}  // namespace
}  // namespace conformance

int main(int argc, char** argv) {
  conformance::ownArguments = argv;
  return frame::perform(conformance::kProgram, argc, argv);
}
