// SPDX-License-Identifier: Apache-2.0
#include "program-start.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "file-descriptor.h"

namespace base {
namespace {

// The program gets a copy.
std::vector<char*> pointersTo(const std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (const std::string& text : texts) {
    pointers.push_back(const_cast<char*>(text.c_str()));
  }
  pointers.push_back(nullptr);
  return pointers;
}

void passOn(int input, const ProgramStart::Output& output) {
  char block[65536];
  ssize_t count = 0;
  while ((count = read(input, block, sizeof block)) > 0 || (count < 0 && errno == EINTR)) {
    output({block, count > 0 ? static_cast<std::size_t>(count) : 0});
  }
}

}  // namespace

ProgramStart::ProgramStart() {
  posix_spawn_file_actions_init(&actions_);
  posix_spawnattr_init(&attributes_);
}

ProgramStart::~ProgramStart() {
  posix_spawnattr_destroy(&attributes_);
  posix_spawn_file_actions_destroy(&actions_);
}

ProgramStart& ProgramStart::withNothingAt(int number) {
  posix_spawn_file_actions_addopen(&actions_, number, "/dev/null", O_RDWR, 0);
  return *this;
}

ProgramStart& ProgramStart::with(int descriptor, int number) {
  posix_spawn_file_actions_adddup2(&actions_, descriptor, number);
  return *this;
}

ProgramStart& ProgramStart::withNothingFrom(int number) {
  posix_spawn_file_actions_addclosefrom_np(&actions_, number);
  return *this;
}

ProgramStart& ProgramStart::in(int directory) {
  posix_spawn_file_actions_addfchdir_np(&actions_, directory);
  return *this;
}

ProgramStart& ProgramStart::in(const char* directory) {
  posix_spawn_file_actions_addchdir_np(&actions_, directory);
  return *this;
}

ProgramStart& ProgramStart::apart() {
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attributes_, &none);
  posix_spawnattr_setsigdefault(&attributes_, &all);
  posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  return *this;
}

int ProgramStart::run(const std::vector<std::string>& arguments, const std::vector<std::string>& environment,
                      pid_t& process) const {
  return posix_spawnp(&process, arguments[0].c_str(), &actions_, &attributes_, pointersTo(arguments).data(),
                      pointersTo(environment).data());
}

int ProgramStart::runToEnd(const std::vector<std::string>& arguments,
                           const std::vector<std::string>& environment, const Output& output, int& status) {
  Pipe pipe = makePipe();
  if (!pipe.readEnd) {
    return errno;
  }
  pid_t process = 0;
  if (const int error = with(pipe.writeEnd.get(), STDOUT_FILENO).run(arguments, environment, process);
      error != 0) {
    return error;
  }
  pipe.writeEnd.reset();
  try {
    passOn(pipe.readEnd.get(), output);
  } catch (...) {
    kill(process, SIGTERM);
    pipe.readEnd.reset();
    waitForEnd(process);
    throw;
  }
  pipe.readEnd.reset();
  status = waitForEnd(process);
  return 0;
}

std::vector<std::string> environmentWithout(const std::string& name) {
  std::vector<std::string> variables;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    if (std::string text = *variable; text.compare(0, name.size() + 1, name + "=") != 0) {
      variables.push_back(std::move(text));
    }
  }
  return variables;
}

int waitForEnd(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) {
      return -1;
    }
  }
  return status;
}

}  // namespace base
