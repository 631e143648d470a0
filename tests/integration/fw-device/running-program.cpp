// SPDX-License-Identifier: Apache-2.0
#include "running-program.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace {

constexpr int kNotStarted = 125;

struct Pipe {
  int read;
  int write;
};

Pipe makePipe() {
  int ends[2] = {};
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe2");
  }
  return {ends[0], ends[1]};
}

bool becomeUser(uid_t user) {
  return user == 0 ||
         (setgroups(0, nullptr) == 0 && setresgid(user, user, user) == 0 && setresuid(user, user, user) == 0);
}

void become(const ProgramStart& start) {
  std::vector<char*> arguments;
  for (const auto& argument : start.command) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);
  for (const auto& entry : start.environment) {
    const auto sign = entry.find('=');
    setenv(entry.substr(0, sign).c_str(), entry.substr(sign + 1).c_str(), 1);
  }
  if (becomeUser(start.user) && chdir(start.directory.c_str()) == 0) {
    execvp(arguments[0], arguments.data());
  }
  _exit(kNotStarted);
}

void closeEnd(int& descriptor) {
  if (descriptor >= 0) {
    close(descriptor);
    descriptor = -1;
  }
}

// Appends what is there; false at the end of the stream.
bool append(int descriptor, std::string& text) {
  char buffer[4096];
  const ssize_t length = read(descriptor, buffer, sizeof buffer);
  if (length > 0) {
    text.append(buffer, static_cast<std::size_t>(length));
  }
  return length > 0;
}

void collect(int output, int error, ProgramResult& result) {
  pollfd streams[] = {{output, POLLIN, 0}, {error, POLLIN, 0}};
  std::string* const texts[] = {&result.output, &result.error};
  while (streams[0].fd >= 0 || streams[1].fd >= 0) {
    if (poll(streams, 2, -1) < 0) {
      throw std::system_error(errno, std::generic_category(), "poll");
    }
    for (int i = 0; i < 2; ++i) {
      if (streams[i].revents != 0 && !append(streams[i].fd, *texts[i])) {
        streams[i].fd = -1;
      }
    }
  }
}

}  // namespace

RunningProgram::RunningProgram(const ProgramStart& start) {
  const Pipe input = makePipe();
  const Pipe output = makePipe();
  const Pipe error = makePipe();
  pid_ = fork();
  if (pid_ == 0) {
    dup2(input.read, STDIN_FILENO);
    dup2(output.write, STDOUT_FILENO);
    dup2(error.write, STDERR_FILENO);
    become(start);
  }
  close(input.read);
  close(output.write);
  close(error.write);
  input_ = input.write;
  output_ = output.read;
  error_ = error.read;
}

RunningProgram::~RunningProgram() {
  closeEnd(input_);
  closeEnd(output_);
  closeEnd(error_);
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

std::string RunningProgram::readLine() {
  std::string line;
  for (char byte = 0; read(output_, &byte, 1) == 1 && byte != '\n';) {
    line += byte;
  }
  return line;
}

void RunningProgram::write(const std::string& text) {
  if (::write(input_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    throw std::system_error(errno, std::generic_category(), "cannot write to the program");
  }
}

void RunningProgram::kill(int signal) {
  ::kill(pid_, signal);
}

bool RunningProgram::isRunning() const {
  siginfo_t info = {};
  return waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
}

ProgramResult RunningProgram::wait() {
  ProgramResult result;
  closeEnd(input_);
  collect(output_, error_, result);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  return result;
}

ProgramResult runProgram(const ProgramStart& start, const std::string& input) {
  RunningProgram program(start);
  if (!input.empty()) {
    program.write(input);
  }
  return program.wait();
}
