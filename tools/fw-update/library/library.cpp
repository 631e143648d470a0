// SPDX-License-Identifier: Apache-2.0
#include "library/library.h"

#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstring>
#include <exception>
#include <filesystem>
#include <memory>
#include <system_error>

#include "device-paths.h"
#include "fw-update-symbol.h"
#include "isolation/supervised.h"
#include "library-messages.h"
#include "library/hang-notice.h"
#include "library/library-log.h"
#include "library/log-meanings.h"

namespace tool {
namespace {

// The facade takes no module when one of them is broken: which one, and why.
Finding brokenModules() {
  std::optional<Finding> finding;
  std::string names;
  for (const ModuleFile& file : inspectModules()) {
    if (!file.problem) {
      continue;
    }
    if (!finding) {
      finding = file.problem;
    }
    names += (names.empty() ? "" : ", ") + file.name + ".so";
  }
  if (!finding) {
    return {Outcome::BrokenModule, "A module in /prd/usr/fwupdate/controls is broken.", "Try again."};
  }
  finding->remedy += " Until then no module can be used. Broken: " + names + ".";
  return *finding;
}

Finding unknownModule(const Library& library, const std::string& name) {
  std::string known;
  for (const FWUpdateItem& item : library.items) {
    known += (known.empty() ? "" : ", ") + std::string(item.file_name);
  }
  return {Outcome::NoSuchModule, "There is no module " + name + ".",
          known.empty() ? "No module is installed in /prd/usr/fwupdate/controls."
                        : "Installed are: " + known + "."};
}

std::vector<std::string> moduleNames() {
  std::vector<std::string> names;
  std::error_code error;
  for (auto entry = std::filesystem::directory_iterator(fwpaths::kControls, error);
       !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    if (entry->path().extension() == ".so") {
      names.push_back(entry->path().stem().string());
    }
  }
  return names;
}

// Only a failed scan is a problem of the whole library.
std::optional<Finding> scanProblem(const LogMessages& messages) {
  if (findMessage(messages, MESSAGE_CONTROLS_UNREADABLE) == nullptr) {
    return std::nullopt;
  }
  return strongestMeaning(messages, "");
}

// For a watcher, all modules are loaded one by one first: which one it is that crashes
// would not be known while the facade loads them. They stay loaded meanwhile, so that
// none begins twice.
class LoadedModules {
 public:
  LoadedModules() {
    if (!supervised::isSupervised()) {
      return;
    }
    for (const std::string& name : moduleNames()) {
      supervised::tellStep(Step::Load, name);
      handles_.emplace_back(dlopen((fwpaths::kControls + name + ".so").c_str(), RTLD_NOW));
      supervised::tellStep(Step::Load, name, inspectModule(name).firmwareName);
    }
    supervised::tellStep(Step::Start, "");
  }

 private:
  struct Close {
    void operator()(void* library) const { dlclose(library); }
  };
  std::vector<std::unique_ptr<void, Close>> handles_;
};

}  // namespace

Library openLibrary() {
  Library library;
  const LoadedModules loaded;
  const LibraryLog& log = LibraryLog::instance();
  const std::size_t mark = log.mark();
  try {
    library.facade = FWUpdateContorl::getInstance();
    library.items = library.facade->fw_getItemList();
    library.problem = scanProblem(log.since(mark));
    const auto meaning = strongestMeaning(log.since(mark), "");
    library.bindingFailed = meaning && meaning->outcome == Outcome::BrokenModule;
  } catch (const std::exception&) {
    library.problem = scanProblem(log.since(mark));
    if (!library.problem) {
      library.problem = brokenModules();
    }
  }
  return library;
}

Library openLibraryTelling() {
  const HangNotice notice("");
  return openLibrary();
}

const FWUpdateItem* findItem(const Library& library, const std::string& name) {
  for (const FWUpdateItem& item : library.items) {
    if (name == item.file_name) {
      return &item;
    }
  }
  return nullptr;
}

std::optional<Finding> moduleProblem(const Library& library, const std::string& name) {
  if (library.problem) {
    return library.problem;
  }
  if (findItem(library, name) == nullptr) {
    return unknownModule(library, name);
  }
  return bindingProblem(library, name);
}

std::optional<Finding> bindingProblem(const Library& library, const std::string& name) {
  if (!library.bindingFailed) {
    return std::nullopt;
  }
  return inspectModule(name).problem;
}

// -1 is mostly no error number, but a mere "no".
std::string answerText(int answer) {
  constexpr int kGreatestErrorNumber = 4096;
  const bool isErrorNumber =
      answer < -1 && answer > -kGreatestErrorNumber && strerrorname_np(-answer) != nullptr;
  return std::to_string(answer) + (isErrorNumber ? " (" + std::string(strerrordesc_np(-answer)) + ")" : "");
}

std::string answerText(const std::string& answer) {
  int number = 0;
  const char* const end = answer.data() + answer.size();
  const auto read = std::from_chars(answer.data(), end, number);
  return read.ec == std::errc() && read.ptr == end ? answerText(number) : answer;
}

Finding unknownVersion(const std::string& name, int result) {
  return {Outcome::ModuleFailed,
          name + " could not tell its version: it answered " + answerText(result) + ".",
          "Check that the component is connected."};
}

ModuleFile inspectModule(const std::string& name) {
  ModuleFile file{name, "", "", std::nullopt};
  const LibraryLog& log = LibraryLog::instance();
  const std::size_t mark = log.mark();
  FWUpdateSymbol module(name);
  supervised::tellStep(Step::Load, name);
  if (module.loadSymbol(name) != 0) {
    file.problem = strongestMeaning(log.since(mark), name);
    if (!file.problem) {  // the library says nothing of a path that leads nowhere
      file.problem =
          Finding{Outcome::BrokenModule, name + ".so cannot be found: it is a link that leads nowhere.",
                  "Remove it, or install the file that it points to."};
    }
    return file;
  }
  file.firmwareName = module.getFirmwareName();
  supervised::tellStep(Step::Version, name, file.firmwareName);
  try {
    std::array<char, 128> version{};
    module.getActiveVersion(version.data());
    file.version.assign(version.begin(), std::find(version.begin(), version.end(), '\0'));
  } catch (const std::exception& error) {
    file.problem =
        Finding{Outcome::ModuleFailed, name + ".so broke off when asked for its version: " + error.what(),
                "Install a version of the module that fits this device, or remove the file."};
  }
  return file;
}

std::vector<ModuleFile> inspectModules() {
  std::vector<ModuleFile> files;
  for (const std::string& name : moduleNames()) {
    files.push_back(inspectModule(name));
  }
  return files;
}

const char* kindOf(std::string name) {
  for (char& c : name) {
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  return name.find("EXT-") != std::string::npos ? "EXT" : "ordinary";
}

}  // namespace tool
