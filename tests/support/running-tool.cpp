// SPDX-License-Identifier: Apache-2.0
#include "running-tool.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <poll.h>
#include <pty.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace {

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// A module that answers at once is taken for one that ran out of time, unless the
// library's notifications wait for their waiter. The processes that the command sees are
// all there are.
void preload() {
#ifdef FAULT_INJECTION_LIBRARY
  setenv("LD_PRELOAD", FAULT_INJECTION_LIBRARY, 1);
  std::error_code error;
  const std::string link = std::filesystem::read_symlink("/proc/self/ns/pid", error);
  setenv("TESTS_PID_NAMESPACE", link.c_str(), 1);
#endif
}

[[noreturn]] void execute(const std::vector<std::string>& arguments, const Launch& launch) {
  preload();
  for (const std::string& setting : launch.environment) {
    putenv(const_cast<char*>(setting.c_str()));
  }
  if (!launch.overridesFileModes) {
    prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE);
    prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH);
  }
  std::string name = std::filesystem::path(TESTED_TOOL).filename();  // as a shell would
  std::vector<char*> words{name.data()};
  for (const std::string& argument : arguments) {
    words.push_back(const_cast<char*>(argument.c_str()));
  }
  words.push_back(nullptr);
  execv(TESTED_TOOL, words.data());
  _exit(127);
}

}  // namespace

RunningTool::RunningTool(const std::vector<std::string>& arguments, const Launch& launch) {
  if (launch.terminalColumns > 0) {
    winsize size{};
    size.ws_row = 24;
    size.ws_col = launch.terminalColumns;
    id_ = forkpty(&outEnd_, nullptr, nullptr, &size);
    if (id_ < 0) {
      fail("forkpty");
    }
    if (id_ == 0) {
      execute(arguments, launch);
    }
    return;
  }
  int out[2];
  int err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    fail("pipe2");
  }
  id_ = fork();
  if (id_ < 0) {
    fail("fork");
  }
  if (id_ == 0) {
    dup2(out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    execute(arguments, launch);
  }
  close(out[1]);
  close(err[1]);
  outEnd_ = out[0];
  errEnd_ = err[0];
}

RunningTool::~RunningTool() {
  if (id_ > 0) {
    ::kill(id_, SIGKILL);
    waitpid(id_, nullptr, 0);
  }
  for (const int end : {outEnd_, errEnd_}) {
    if (end >= 0) {
      close(end);
    }
  }
}

// False when both ends are at their end.
bool RunningTool::readSome() {
  struct Source {
    int& end;
    std::string& text;
  } sources[] = {{outEnd_, out_}, {errEnd_, err_}};
  pollfd polled[2] = {{outEnd_, POLLIN, 0}, {errEnd_, POLLIN, 0}};
  if (outEnd_ < 0 && errEnd_ < 0) {
    return false;
  }
  poll(polled, 2, -1);
  for (int i = 0; i < 2; ++i) {
    if (polled[i].revents == 0) {
      continue;
    }
    char buffer[4096];
    const ssize_t length = read(sources[i].end, buffer, sizeof buffer);
    if (length > 0) {
      sources[i].text.append(buffer, static_cast<std::size_t>(length));
    } else {
      close(sources[i].end);  // a terminal ends with EIO
      sources[i].end = -1;
    }
  }
  return true;
}

void RunningTool::waitFor(const std::string& text) {
  waitUntilIn(out_, text);
}

void RunningTool::waitForError(const std::string& text) {
  waitUntilIn(err_, text);
}

void RunningTool::waitUntilIn(const std::string& output, const std::string& text) {
  while (output.find(text) == std::string::npos) {
    if (!readSome()) {
      throw std::runtime_error("\"" + text + "\" did not come; there was:\n" + out_ + err_);
    }
  }
}

void RunningTool::kill(int signal) {
  ::kill(id_, signal);
}

void RunningTool::type(const std::string& keys) {
  [[maybe_unused]] const ssize_t written = write(outEnd_, keys.data(), keys.size());
}

void RunningTool::closeOutput() {
  close(outEnd_);
  outEnd_ = -1;
}

int RunningTool::finish() {
  while (readSome()) {
  }
  int status = 0;
  waitpid(id_, &status, 0);
  id_ = 0;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}
