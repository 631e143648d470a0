// fw-platform-check: does a platform library keep what the update library relies on?
#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iomanip>
#include <iostream>
#include <string>

#include "checks.h"
#include "clean-output.h"
#include "runner.h"

namespace {

using conformance::Check;
using conformance::Finding;

constexpr int kExitBroken = 1;
constexpr int kExitUsage = 2;
constexpr const char* kVerdicts[] = {"kept", "BROKEN", "not checked"};

constexpr const char* kHelp =
    "Checks that a platform library keeps what the update library relies on.\n"
    "Usage: fw-platform-check [--secure] [--library FILE] [--only AREA] [--timeout S]\n"
    "  --library FILE  The platform library to check; default: the installed one\n"
    "  --only AREA     log, system, mount, power, event, trace, download or verifier\n"
    "  --secure        Check instead, as root, that this set uses nothing unsigned\n"
    "  --timeout S     Give up a check after so many seconds; default: 20\n"
    "  --version       Show the version\n"
    "  --help          Show this\n\n"
    "Run it on the set, as the user that updates run as. It mounts a package of its\n"
    "own, holds the power for a moment and signals events that nobody waits for.\n"
    "Example: fw-platform-check --library ./libfw-platform.so.1\n"
    "Exit codes: 0 all is kept, or not checked   1 something is broken   2 usage\n";

struct Arguments {
  std::string library;
  std::string area;
  int seconds = 20;  // for each check
  bool secure = false;
};

bool isArea(const std::string& name) {
  for (const Check& check : conformance::kChecks) {
    if (name == check.area) {
      return true;
    }
  }
  return false;
}

[[noreturn]] void usageError(const std::string& sentence) {
  std::cerr << "fw-platform-check: " << sentence << "\nTry: fw-platform-check --help" << std::endl;
  std::exit(kExitUsage);
}

[[noreturn]] void show(const char* text) {
  std::cout << text << std::flush;
  std::exit(0);
}

int secondsFrom(const std::string& text) {
  int seconds = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (error != std::errc() || end != text.data() + text.size() || seconds < 1 || seconds > 3600) {
    usageError("the time is 1 to 3600 seconds, not " + text);
  }
  return seconds;
}

Arguments parse(int argc, char** argv) {
  constexpr option kOptions[] = {{"library", required_argument, nullptr, 'l'},
                                 {"only", required_argument, nullptr, 'o'},
                                 {"timeout", required_argument, nullptr, 't'},
                                 {"version", no_argument, nullptr, 'v'},
                                 {"secure", no_argument, nullptr, 's'},
                                 {"help", no_argument, nullptr, 'h'},
                                 {nullptr, 0, nullptr, 0}};
  Arguments arguments;
  opterr = 0;
  for (int found = 0; (found = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1;) {
    switch (found) {
      case 'l':
        arguments.library = optarg;
        break;
      case 'o':
        arguments.area = optarg;
        break;
      case 't':
        arguments.seconds = secondsFrom(optarg);
        break;
      case 's':
        arguments.secure = true;
        break;
      case 'v':
        show("fw-platform-check " FW_PLATFORM_CHECK_VERSION "\n");
      case 'h':
        show(kHelp);
      default:
        usageError(std::string("there is no option ") + argv[optind - 1]);
    }
  }
  if (optind < argc) {
    usageError(std::string("what is ") + argv[optind] + "?");
  }
  if (arguments.secure && !(arguments.area.empty() && arguments.library.empty())) {
    usageError("--secure looks at the set, not at an area of a library");
  }
  if (!arguments.area.empty() && !isArea(arguments.area)) {
    usageError("there is no area " + arguments.area);
  }
  return arguments;
}

// A library that is loaded first takes the installed one's place. So the program
// starts itself once more.
void takeLibrary(const std::string& library, char** argv) {
  constexpr const char* kTaken = "FW_PLATFORM_CHECK_LIBRARY";
  if (library.empty() || std::getenv(kTaken) != nullptr) {
    return;
  }
  char* const path = realpath(library.c_str(), nullptr);
  if (path == nullptr) {
    usageError(library + ": " + std::strerror(errno));
  }
  setenv(kTaken, path, 1);
  setenv("LD_PRELOAD", path, 1);
  std::free(path);
  execv("/proc/self/exe", argv);
  usageError(std::string("the program cannot start itself again: ") + std::strerror(errno));
}

void report(const Check& check, const Finding& finding) {
  std::cout << std::left << std::setw(9) << check.area << ' ' << std::setw(12)
            << kVerdicts[static_cast<int>(finding.verdict)] << ' ' << check.promise << '\n';
  if (!finding.sentence.empty()) {
    std::cout << std::string(23, ' ') << finding.sentence << '\n';
  }
  std::cout << std::flush;
}

void endIfInterrupted() {
  if (const int signal = conformance::interruption(); signal != 0) {
    std::signal(signal, SIG_DFL);
    std::raise(signal);
  }
}

template <std::size_t Size>
int checkAll(const Check (&checks)[Size], const Arguments& arguments) {
  int counts[3] = {};
  for (const Check& check : checks) {
    if (arguments.area.empty() || arguments.area == check.area) {
      const Finding finding = conformance::runApart(check, arguments.seconds);
      endIfInterrupted();
      report(check, finding);
      ++counts[static_cast<int>(finding.verdict)];
    }
  }
  std::cout << counts[0] << " kept, " << counts[1] << " broken, " << counts[2] << " not checked" << std::endl;
  return counts[1] == 0 ? 0 : kExitBroken;
}

}  // namespace

int main(int argc, char** argv) {
  base::cleanStandardOutput();
  const Arguments arguments = parse(argc, argv);
  takeLibrary(arguments.library, argv);
  unsetenv("LD_PRELOAD");  // not for what the library starts
  conformance::catchInterruptions();
  try {
    return arguments.secure ? checkAll(conformance::kSecurityChecks, arguments)
                            : checkAll(conformance::kChecks, arguments);
  } catch (const std::exception& error) {
    std::cerr << "fw-platform-check: " << error.what() << std::endl;
    return kExitBroken;
  }
}
