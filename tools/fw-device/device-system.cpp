// SPDX-License-Identifier: Apache-2.0
#include "device-system.h"

#include <elf.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

#include "outcome.h"
#include "tool-location.h"

namespace fwdevice {
namespace fs = std::filesystem;
namespace {

constexpr char kShell[] = "/bin/sh";
constexpr char kTool[] = "/fw-device";

struct Line {
  const char* name;
  std::string DeviceSystem::*value;
};

constexpr Line kLines[] = {{"root = ", &DeviceSystem::root}, {"build = ", &DeviceSystem::build}};

// Up to the processor, 32- and 64-bit programs begin alike.
using ProgramKind = std::array<unsigned char, EI_NIDENT + 4>;

// Nothing for a script, or a file that cannot be read from here.
std::optional<ProgramKind> programKind(const std::string& path) {
  ProgramKind start = {};
  std::ifstream file(path, std::ios::binary);
  file.read(reinterpret_cast<char*>(start.data()), static_cast<std::streamsize>(start.size()));
  if (!file || std::memcmp(start.data(), ELFMAG, SELFMAG) != 0) {
    return std::nullopt;
  }
  return start;
}

bool sameProcessor(const ProgramKind& one, const ProgramKind& other) {
  return one[EI_CLASS] == other[EI_CLASS] && one[EI_DATA] == other[EI_DATA] &&
         std::memcmp(&one[EI_NIDENT + 2], &other[EI_NIDENT + 2], 2) == 0;
}

std::string existing(const std::string& option, const std::string& path) {
  std::error_code missing;
  const auto absolute = fs::canonical(path, missing).string();
  if (missing || !fs::is_directory(absolute)) {
    throw Failure(Outcome::Usage, option + " " + path + ": there is no such directory");
  }
  return absolute;
}

void requireFittingPrograms(const DeviceSystem& system) {
  const auto directory = programDirectory(system);
  const auto ours = programKind(directory + kTool);
  const auto theirs = programKind(system.root + kShell);
  if (ours && theirs && !sameProcessor(*ours, *theirs)) {
    throw Failure(Outcome::Usage, "the programs in " + directory +
                                      " are for another processor than those of " + system.root +
                                      "; name a build for it with --build");
  }
}

}  // namespace

std::string programDirectory(const DeviceSystem& system) {
  return system.build.empty() ? toolDirectory() : system.build + "/bin";
}

DeviceSystem chooseSystem(const DeviceSystem& wanted, const DeviceSystem& present) {
  DeviceSystem chosen = present;
  if (!wanted.root.empty()) {
    const auto root = existing("--root", wanted.root);
    chosen = root == "/" ? DeviceSystem() : DeviceSystem{root, present.build};
  }
  if (!wanted.build.empty()) {
    chosen.build = existing("--build", wanted.build);
  }
  requireFittingPrograms(chosen);
  return chosen;
}

std::string systemText(const DeviceSystem& system) {
  std::string text;
  for (const auto& line : kLines) {
    const auto& value = system.*line.value;
    text += value.empty() ? "" : line.name + value + "\n";
  }
  return text;
}

DeviceSystem parseSystem(const std::string& text) {
  DeviceSystem system;
  std::istringstream lines(text);
  for (std::string read; std::getline(lines, read);) {
    for (const auto& line : kLines) {
      if (read.compare(0, std::strlen(line.name), line.name) == 0) {
        system.*line.value = read.substr(std::strlen(line.name));
      }
    }
  }
  return system;
}

}  // namespace fwdevice
