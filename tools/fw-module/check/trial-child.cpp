// SPDX-License-Identifier: Apache-2.0
#include "trial-child.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "device-namespace.h"
#include "device-paths.h"
#include "ending-signals.h"
#include "lent-memory.h"

namespace fwmodule {
namespace {

void redirect(int output) {
  const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
  dup2(nothing, STDIN_FILENO);
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  close(nothing);
}

// No core files of modules that crash on purpose of the check.
void leaveNoCore() {
  const rlimit none{};
  setrlimit(RLIMIT_CORE, &none);
}

// After the device has been entered, which would undo it.
void endWithParent(pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) {
    _exit(0);
  }
}

void enterDevice(const Subject& subject) {
  const std::string besideIt = std::filesystem::absolute(subject.path).parent_path();  // its libraries
  sandbox::enterDevice({"", {besideIt}, {}, subject.keepVisible});
}

std::string installModule(const Subject& subject) {
  const std::string path = fwpaths::kControls + subject.library + ".so";
  std::ofstream file(path, std::ios::binary);
  if (!file.write(subject.bytes.data(), static_cast<std::streamsize>(subject.bytes.size())).flush()) {
    throw std::runtime_error("cannot install the module on the device: " + path);
  }
  file.close();
  chmod(path.c_str(), 0755);
  return path;
}

void perform(const Trial& trial, const Subject& subject, Transcript& transcript) {
  const FaultStack stack;
  const std::string path = installModule(subject);
  catchFaults(transcript);
  LoadedModule module(transcript, path, subject.library, subject.broken);
  if (module.isLoaded()) {
    trial.run({subject, transcript, module});
  }
}

}  // namespace

void runChild(const Trial& trial, const Subject& subject, int pipe, int output, pid_t parent) {
  static Transcript transcript(pipe);  // still there when the process ends
  EndingSignals::forget();
  redirect(output);
  leaveNoCore();
  try {
    enterDevice(subject);
    endWithParent(parent);
    perform(trial, subject, transcript);
  } catch (const std::exception& error) {
    transcript.refused(error.what());
    _exit(0);
  }
  std::fflush(nullptr);
  transcript.done();
  _exit(0);
}

}  // namespace fwmodule
