// SPDX-License-Identifier: Apache-2.0
#include "run.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "device-directory.h"
#include "device-namespace.h"
#include "device-system.h"
#include "outcome.h"

namespace fwdevice {
namespace fs = std::filesystem;
namespace {

// They may name directories of the host that the device does not have.
constexpr const char* kDirectoryVariables[] = {"TMPDIR", "XDG_RUNTIME_DIR"};
constexpr char kDefaultShell[] = "/bin/sh";
// For a root file system of its own; the host's may have other directories.
constexpr char kDefaultPath[] = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

std::string variable(const char* name, const char* otherwise) {
  const char* const value = std::getenv(name);
  return value != nullptr && *value != '\0' ? value : otherwise;
}

// The file that a program's name means here, and that mode allows (as for access);
// empty when there is none.
std::string findProgram(const std::string& name, int mode) {
  if (name.find('/') != std::string::npos) {
    return access(name.c_str(), mode) == 0 ? fs::absolute(name).string() : "";
  }
  std::istringstream path(variable("PATH", ""));
  for (std::string directory; std::getline(path, directory, ':');) {
    const auto candidate = fs::path(directory) / name;
    if (access(candidate.c_str(), mode) == 0 && !fs::is_directory(candidate)) {
      return fs::absolute(candidate);
    }
  }
  return "";
}

// A root file system of its own has programs of its own; only by its path is one of
// the host's meant.
std::string hostProgram(const DeviceSystem& system, const std::string& name) {
  return system.root.empty() || name.find('/') != std::string::npos ? findProgram(name, X_OK) : "";
}

bool rootHas(const DeviceSystem& system, const std::string& path) {
  return !system.root.empty() && fs::exists(fs::symlink_status(system.root + path));
}

// The build with its libraries, what the root file system does not have of the current
// directory and the program with what lies beside it, and what the user named.
std::vector<std::string> visiblePaths(const Options& options, const DeviceSystem& system,
                                      const std::string& program) {
  const auto programs = programDirectory(system);
  std::vector<std::string> paths = {fs::path(programs).parent_path(), programs};
  std::error_code gone;
  const auto here = fs::current_path(gone).string();
  const auto file = hostProgram(system, program);
  for (const auto& path : {here, fs::path(file).parent_path().string(), file}) {
    if (!path.empty() && !rootHas(system, path)) {
      paths.push_back(path);
    }
  }
  paths.insert(paths.end(), options.keepVisible.begin(), options.keepVisible.end());
  return paths;
}

void requireExisting(const std::string& option, const std::vector<std::string>& paths) {
  const auto missing =
      std::find_if_not(paths.begin(), paths.end(), [](const auto& path) { return fs::exists(path); });
  if (missing != paths.end()) {
    throw Failure(Outcome::Usage, option + " " + *missing + ": there is no such path");
  }
}

void enter(const Options& options, const std::string& program) {
  const auto directory = requireDeviceDirectory(options.directory);
  const auto system = deviceSystem(directory);
  const auto path = programDirectory(system) + ":" +
                    (system.root.empty() ? variable("PATH", "/usr/bin:/bin") : kDefaultPath);
  setenv("PATH", path.c_str(), 1);
  setenv("FW_DEVICE", directory.c_str(), 1);
  requireExisting("--keep", options.keepVisible);
  requireExisting("--writable", options.keepWritable);
  try {
    sandbox::enterDevice(
        {directory, visiblePaths(options, system, program), system.root, options.keepWritable});
  } catch (const std::exception& refused) {
    throw Failure(Outcome::NotEntered, refused.what());
  }
  for (const char* name : kDirectoryVariables) {
    if (!fs::is_directory(variable(name, "/"))) {
      unsetenv(name);
    }
  }
}

[[noreturn]] void become(const std::vector<std::string>& program) {
  std::vector<char*> arguments;
  arguments.reserve(program.size() + 1);
  for (const auto& argument : program) {
    arguments.push_back(const_cast<char*>(argument.c_str()));  // execvp changes nothing
  }
  arguments.push_back(nullptr);
  execvp(arguments[0], arguments.data());
  // execvp also says EACCES when a directory of PATH cannot be searched.
  const int refusal = errno;
  const bool missing = refusal == EACCES && findProgram(program[0], F_OK).empty();
  const int error = missing ? ENOENT : refusal;
  throw Failure(error == ENOENT ? Outcome::NotFound : Outcome::NotExecutable,
                "cannot run " + program[0] + " on the device: " + std::strerror(error));
}

}  // namespace

frame::Report run(const Options& options) {
  enter(options, options.program[0]);
  become(options.program);
}

frame::Report shell(const Options& options) {
  const auto name = fs::path(requireDeviceDirectory(options.directory)).filename().string();
  const auto wanted = variable("SHELL", kDefaultShell);
  const bool fromHost = deviceSystem(options.directory).root.empty();
  enter(options, fromHost ? wanted : "");    // another root file system has its own shells
  setenv("debian_chroot", name.c_str(), 1);  // Debian's start-up files put it into bash's prompt
  setenv("PS1", ("(" + name + ") # ").c_str(), 1);
  std::cerr << "On the device " << name << "; leave it with exit." << std::endl;
  become({access(wanted.c_str(), X_OK) == 0 ? wanted : kDefaultShell});
}

}  // namespace fwdevice
