// SPDX-License-Identifier: Apache-2.0
#include "request-check.h"

#include <algorithm>
#include <climits>
#include <iterator>

#include "callers.h"
#include "refusal.h"

namespace updated {
namespace {

constexpr std::size_t kLongestName = 127;
constexpr std::size_t kLongestArgument = 1024;
constexpr std::size_t kMostArguments = 16;

// What only asks, and reads no file that a client names.
constexpr const char* kQueries[] = {"list",     "info",        "verify",  "pending",
                                    "progress", "lock status", "history", "history show"};

// Of these commands; none that names a file, or has the command ask somebody else.
constexpr const char* kOptions[] = {"--caller", "--data",   "--version", "--module",
                                    "--since",  "--failed", "--json",    "--log"};

[[noreturn]] void refuse(const std::string& sentence) {
  throw refusal(kInvalidArgument, sentence);
}

bool isPlain(const std::string& text) {
  return std::none_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20; });
}

bool isUnknownOption(const std::string& argument) {
  const std::string name = argument.substr(0, argument.find('='));
  return argument[0] == '-' &&
         std::find(std::begin(kOptions), std::end(kOptions), name) == std::end(kOptions);
}

}  // namespace

void checkModule(const std::string& module) {
  if (module.empty() || module.size() > kLongestName) {
    refuse("A module's name has 1 to 127 characters.");
  }
  if (module[0] == '-' || module[0] == '.' || module.find('/') != std::string::npos || !isPlain(module)) {
    refuse("A module's name is a file's without \".so\", as ListModules gives it.");
  }
}

void checkCaller(const std::string& caller, const std::string& data) {
  const fwcallers::Caller* const known =
      fwcallers::findCaller(caller.empty() ? fwcallers::kDefaultCaller : caller);
  if (known == nullptr) {
    refuse("There is no such caller; fw-update update --help lists them.");
  }
  if (data.size() > kLongestName) {
    refuse("The data for a module has at most 127 characters.");
  }
  if (known->fixedData != nullptr && !data.empty()) {
    refuse("The caller " + caller + " has fixed data.");
  }
}

void checkFolder(const std::string& folder) {
  if (folder.empty()) {
    return;
  }
  if (folder[0] != '/' || folder.size() >= PATH_MAX || !isPlain(folder)) {
    refuse("A folder is an absolute path.");
  }
}

std::vector<std::string> queryWords(const std::string& command, const std::vector<std::string>& arguments) {
  if (std::find(std::begin(kQueries), std::end(kQueries), command) == std::end(kQueries)) {
    refuse(
        "Only these can be asked: list, info, verify, pending, progress, lock status, history, history "
        "show.");
  }
  std::vector<std::string> words;
  const std::size_t blank = command.find(' ');
  words.push_back(command.substr(0, blank));
  if (blank != std::string::npos) {
    words.push_back(command.substr(blank + 1));
  }
  const bool areTooLong = std::any_of(arguments.begin(), arguments.end(), [](const std::string& argument) {
    return argument.size() > kLongestArgument;
  });
  if (arguments.size() > kMostArguments || areTooLong) {
    refuse("These are more arguments, or longer ones, than any command has.");
  }
  const auto unknown = std::find_if(arguments.begin(), arguments.end(), isUnknownOption);
  if (unknown != arguments.end()) {
    refuse("A question has no such option: " + *unknown + ".");
  }
  words.insert(words.end(), arguments.begin(), arguments.end());
  return words;
}

}  // namespace updated
