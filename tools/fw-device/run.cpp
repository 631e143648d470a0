#include "run.h"

#include <unistd.h>

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
#include "tool-location.h"

namespace fwdevice {
namespace fs = std::filesystem;
namespace {

// They may name directories of the host that the device does not have.
constexpr const char* kDirectoryVariables[] = {"TMPDIR", "XDG_RUNTIME_DIR"};
constexpr char kDefaultShell[] = "/bin/sh";

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

// This build with its libraries, the current directory, the program with what lies
// beside it, and what the user named.
std::vector<std::string> visiblePaths(const CommandLine& line, const std::string& program) {
  const auto tool = toolDirectory();
  std::vector<std::string> paths = {fs::path(tool).parent_path(), tool};
  std::error_code gone;
  const auto here = fs::current_path(gone).string();
  const auto file = findProgram(program, X_OK);
  for (const auto& path : {here, fs::path(file).parent_path().string(), file}) {
    if (!path.empty()) {
      paths.push_back(path);
    }
  }
  paths.insert(paths.end(), line.keepVisible.begin(), line.keepVisible.end());
  return paths;
}

void enter(const CommandLine& line, const std::string& program) {
  const auto directory = requireDeviceDirectory(line.directory);
  const auto path = toolDirectory() + ":" + variable("PATH", "/usr/bin:/bin");
  setenv("PATH", path.c_str(), 1);
  setenv("FW_DEVICE", directory.c_str(), 1);
  for (const auto& kept : line.keepVisible) {
    if (!fs::exists(kept)) {
      throw Failure(ExitCode::Usage, "--keep " + kept + ": there is no such path");
    }
  }
  try {
    sandbox::enterDevice({directory, visiblePaths(line, program)});
  } catch (const std::exception& refused) {
    throw Failure(ExitCode::NotEntered, refused.what());
  }
  for (const char* name : kDirectoryVariables) {
    if (!fs::is_directory(variable(name, "/"))) {
      unsetenv(name);
    }
  }
}

[[noreturn]] void become(const std::vector<std::string>& program) {
  std::vector<char*> arguments;
  for (const auto& argument : program) {
    arguments.push_back(const_cast<char*>(argument.c_str()));  // execvp changes nothing
  }
  arguments.push_back(nullptr);
  execvp(arguments[0], arguments.data());
  // execvp also says EACCES when a directory of PATH cannot be searched.
  const int refusal = errno;
  const bool missing = refusal == EACCES && findProgram(program[0], F_OK).empty();
  const int error = missing ? ENOENT : refusal;
  throw Failure(error == ENOENT ? ExitCode::NotFound : ExitCode::NotExecutable,
                "cannot run " + program[0] + " on the device: " + std::strerror(error));
}

}  // namespace

void run(const CommandLine& line) {
  enter(line, line.program[0]);
  become(line.program);
}

void shell(const CommandLine& line) {
  const auto name = fs::path(requireDeviceDirectory(line.directory)).filename().string();
  const auto wanted = variable("SHELL", kDefaultShell);
  enter(line, wanted);
  setenv("debian_chroot", name.c_str(), 1);  // Debian's start-up files put it into bash's prompt
  setenv("PS1", ("(" + name + ") # ").c_str(), 1);
  std::cerr << "On the device " << name << "; leave it with exit." << std::endl;
  become({access(wanted.c_str(), X_OK) == 0 ? wanted : kDefaultShell});
}

}  // namespace fwdevice
