// SPDX-License-Identifier: Apache-2.0
#include "child-program.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "exit-code.h"
#include "interruption.h"
#include "live-line.h"

namespace fwpack {
namespace {

class SpawnActions {
 public:
  SpawnActions() { posix_spawn_file_actions_init(&actions_); }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;
  ~SpawnActions() { posix_spawn_file_actions_destroy(&actions_); }
  posix_spawn_file_actions_t* get() { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_ = {};
};

// mksquashfs refuses to be told the time twice.
std::vector<char*> environmentOfChild() {
  std::vector<char*> variables;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    if (std::strncmp(*variable, "SOURCE_DATE_EPOCH=", 18) != 0) {
      variables.push_back(*variable);
    }
  }
  variables.push_back(nullptr);
  return variables;
}

pid_t spawn(const std::vector<std::string>& arguments, const char* package, int output) {
  SpawnActions actions;
  posix_spawn_file_actions_addopen(actions.get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(actions.get(), output, STDOUT_FILENO);
  posix_spawn_file_actions_addopen(actions.get(), STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  std::vector<char*> texts;
  texts.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) {
    texts.push_back(const_cast<char*>(argument.c_str()));  // the child gets a copy
  }
  texts.push_back(nullptr);
  pid_t child = 0;
  const int error =
      posix_spawnp(&child, texts[0], actions.get(), nullptr, texts.data(), environmentOfChild().data());
  if (error != 0) {
    throw Failure(ExitCode::Failed, arguments[0] + " cannot be run: " + std::strerror(error) +
                                        (error == ENOENT ? std::string("; install ") + package : ""));
  }
  return child;
}

void passOn(int input, const Block& block) {
  unsigned char buffer[65536];
  ssize_t got = 0;
  while ((got = ::read(input, buffer, sizeof buffer)) > 0 || (got < 0 && errno == EINTR)) {
    if (got > 0) {
      block(buffer, static_cast<std::size_t>(got));
    }
    endIfInterrupted();
  }
}

int waitFor(pid_t child) {
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

}  // namespace

bool runProgram(const std::vector<std::string>& arguments, const char* package, const Block& block) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    failWithErrno("no pipe");
  }
  pid_t child = 0;
  try {
    child = spawn(arguments, package, ends[1]);
  } catch (const Failure&) {
    ::close(ends[0]);
    ::close(ends[1]);
    throw;
  }
  ::close(ends[1]);
  tool::LiveLine line(STDERR_FILENO);
  line.show(arguments[0] + " is at work");
  try {
    passOn(ends[0], block);
  } catch (const tool::Interrupted&) {
    ::kill(child, SIGTERM);
    ::close(ends[0]);
    waitFor(child);
    throw;
  }
  ::close(ends[0]);
  const int status = waitFor(child);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace fwpack
