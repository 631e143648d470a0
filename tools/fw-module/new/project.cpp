// SPDX-License-Identifier: Apache-2.0
#include "project.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>

#include "outcome.h"
#include "system-error.h"

namespace fwmodule {
namespace fs = std::filesystem;
namespace {

using Values = std::vector<std::pair<std::string, std::string>>;

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

// Removes what it made unless all of it is there.
class NewProject {
 public:
  explicit NewProject(const fs::path& directory)
      : directory_(directory), made_(fs::create_directories(directory)) {
    if (!fs::is_empty(directory_)) {
      throw Failure(Outcome::NotPossible, directory_.string() +
                                              " is not empty, and nothing is overwritten; "
                                              "name another directory with --directory");
    }
  }
  NewProject(const NewProject&) = delete;
  NewProject& operator=(const NewProject&) = delete;
  ~NewProject() {
    std::error_code ignored;
    if (complete_) {
      return;
    }
    for (const fs::path& file : files_) {
      fs::remove(file, ignored);
    }
    if (made_) {
      fs::remove(directory_, ignored);
    }
  }

  void write(const std::string& name, const std::string& content, bool executable) {
    const fs::path path = directory_ / name;
    const std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path.c_str(), "wxe"));
    if (!file) {
      base::throwErrno("cannot write " + path.string());
    }
    files_.push_back(path);
    if (std::fwrite(content.data(), 1, content.size(), file.get()) != content.size() ||
        std::fflush(file.get()) != 0) {
      base::throwErrno("cannot write " + path.string());
    }
    if (executable) {
      fs::permissions(path, fs::perms::owner_exec | fs::perms::group_exec | fs::perms::others_exec,
                      fs::perm_options::add);
    }
  }

  void keep() { complete_ = true; }

 private:
  const fs::path directory_;
  const bool made_;
  std::vector<fs::path> files_;
  bool complete_ = false;
};

std::string filledIn(const std::string_view& text, const Values& values) {
  std::string filled(text);
  for (const auto& [key, value] : values) {
    for (std::size_t at = filled.find(key); at != std::string::npos;
         at = filled.find(key, at + value.size())) {
      filled.replace(at, key.size(), value);
    }
  }
  return filled;
}

}  // namespace

std::vector<std::string> writeProject(const std::string& directory, const ModuleName& name,
                                      const Language& language) {
  const Values values = {
      {"@NAME@", name.library},
      {"@IDENTIFIER@", name.identifier},
      {"@FIRMWARE@", name.firmware},
      {"@SUFFIX@", language.suffix},
      {"@CMAKE_LANGUAGE@", language.cmakeLanguage},
      {"@CMAKE_STANDARD@", language.cmakeStandard},
  };
  NewProject project(directory);
  std::vector<std::string> written;
  for (const Template& one : templatesOf(language, name.extension)) {
    project.write(one.path, filledIn(one.text, values), one.executable);
    written.emplace_back(one.path);
  }
  project.keep();
  return written;
}

}  // namespace fwmodule
