// SPDX-License-Identifier: Apache-2.0
#include "os-release.h"

#include <cerrno>
#include <cstddef>

#include "whole-file.h"

namespace fwplatform {
namespace {

constexpr std::string_view kBlanks = " \t\r";
constexpr std::size_t kLargestFile = std::size_t{64} * 1024;
constexpr const char* kOsReleaseFiles[] = {"/etc/os-release", "/usr/lib/os-release"};

std::string_view withoutLeadingBlanks(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kBlanks);
  return first == std::string_view::npos ? std::string_view() : text.substr(first);
}

bool isName(std::string_view name) {
  constexpr std::string_view kNameCharacters =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_";
  return !name.empty() && name.find_first_not_of(kNameCharacters) == std::string_view::npos;
}

// Takes the quotes off a shell word at the start of text, up to the first blank
// outside of quotes. Nothing when a quote is not closed.
class ShellWord {
 public:
  explicit ShellWord(std::string_view text) : rest_(text) {}

  std::optional<std::string> read() {
    while (!rest_.empty() && kBlanks.find(rest_.front()) == std::string_view::npos) {
      if (!takePiece()) {
        return std::nullopt;
      }
    }
    return word_;
  }

 private:
  bool takePiece() {
    const char first = rest_.front();
    if (first == '\'' || first == '"') {
      rest_.remove_prefix(1);
      return first == '\'' ? takeSingleQuoted() : takeDoubleQuoted();
    }
    if (first == '\\') {
      rest_.remove_prefix(1);
    }
    return takeCharacter();
  }

  bool takeCharacter() {
    if (rest_.empty()) {
      return false;
    }
    word_ += rest_.front();
    rest_.remove_prefix(1);
    return true;
  }

  bool takeSingleQuoted() {
    const std::size_t end = rest_.find('\'');
    if (end == std::string_view::npos) {
      return false;
    }
    word_ += rest_.substr(0, end);
    rest_.remove_prefix(end + 1);
    return true;
  }

  bool takeDoubleQuoted() {
    constexpr std::string_view kEscapable = "$\"\\`";
    while (!rest_.empty() && rest_.front() != '"') {
      const bool escape =
          rest_.front() == '\\' && rest_.size() > 1 && kEscapable.find(rest_[1]) != std::string_view::npos;
      if (escape) {
        rest_.remove_prefix(1);
      }
      takeCharacter();
    }
    if (rest_.empty()) {
      return false;
    }
    rest_.remove_prefix(1);
    return true;
  }

  std::string_view rest_;
  std::string word_;
};

void parseLine(std::string_view line, OsRelease& release) {
  line = withoutLeadingBlanks(line);
  const std::size_t equals = line.find('=');
  if (equals == std::string_view::npos || !isName(line.substr(0, equals))) {
    return;
  }
  if (std::optional<std::string> value = ShellWord(line.substr(equals + 1)).read()) {
    release.insert_or_assign(std::string(line.substr(0, equals)), std::move(*value));
  }
}

std::string firstPresent(const OsRelease& release, std::string_view first, std::string_view second) {
  for (const std::string_view name : {first, second}) {
    const auto found = release.find(name);
    if (found != release.end() && !found->second.empty()) {
      return found->second;
    }
  }
  return "";
}

// 0 with the file's content in text, else a negative errno value.
int readOsRelease(std::string& text) {
  int error = ENOENT;
  for (const char* path : kOsReleaseFiles) {
    error = base::readFile(path, kLargestFile, text);
    if (error == 0) {
      return 0;
    }
  }
  return -error;
}

}  // namespace

OsRelease parseOsRelease(std::string_view text) {
  OsRelease release;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    parseLine(text.substr(0, end), release);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return release;
}

std::string softwareVersionText(const OsRelease& release) {
  std::string model = firstPresent(release, "IMAGE_ID", "ID");
  if (model.empty()) {
    model = "linux";
  }
  std::string rest;
  for (const std::string& part : {firstPresent(release, "IMAGE_VERSION", "VERSION_ID"),
                                  firstPresent(release, "BUILD_ID", "VERSION_CODENAME")}) {
    if (!part.empty()) {
      rest += '-' + part;
    }
  }
  return model + (rest.empty() ? "-unknown" : rest);
}

int readSoftwareVersion(std::string& text) {
  const int status = readOsRelease(text);
  if (status == 0) {
    text = softwareVersionText(parseOsRelease(text));
  }
  return status;
}

std::optional<std::string> readSetModel() {
  std::string version;
  if (readSoftwareVersion(version) != 0) {
    return std::nullopt;
  }
  return version.substr(0, version.rfind('-'));
}

}  // namespace fwplatform
