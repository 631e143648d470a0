// SPDX-License-Identifier: Apache-2.0
#include "runner.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <exception>
#include <initializer_list>
#include <string>

#include "deadline.h"
#include "file-descriptor.h"
#include "program-start.h"
#include "signal-guards.h"
#include "system-error.h"
#include "whole-file.h"

namespace conformance {
namespace {

volatile std::sig_atomic_t came = 0;
volatile std::sig_atomic_t running = 0;  // the check's process

constexpr char kGoesOn[] = "\nfw-platform-check: ends with this check; Ctrl-C once more ends it at once\n";

void onSignal(int signal) {
  const base::KeepErrno keep;
  if (came != 0 && running != 0) {
    kill(-running, SIGKILL);
  } else if (running != 0) {
    [[maybe_unused]] const auto written = write(STDERR_FILENO, kGoesOn, sizeof(kGoesOn) - 1);
  }
  came = signal;
}

void onEachSignal(void (*handler)(int)) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    if (!base::isIgnored(signal)) {
      sigaction(signal, &action, nullptr);
    }
  }
}

// A child in a process group of its own; it returns 0 there.
pid_t startApart() {
  const base::SignalsLater later;
  const pid_t child = fork();
  if (child == 0) {
    setpgid(0, 0);
    onEachSignal(SIG_DFL);
  } else if (child > 0) {
    setpgid(child, child);  // whoever comes first: both sides rely on it
    running = child;
  }
  return child;
}

// The child's answer: the verdict as a digit, then the sentence.
[[noreturn]] void answer(const Check& check, int pipe) {
  Finding finding;
  try {
    finding = check.run();
  } catch (const std::exception& error) {
    finding = broken(std::string("an exception was thrown: ") + error.what());
  }
  const std::string text = std::to_string(static_cast<int>(finding.verdict)) + finding.sentence;
  _exit(base::writeAll(pipe, text) == 0 ? 0 : 1);
}

// What the child wrote until it ended; false when the time is over first.
bool readAnswer(int pipe, const base::Deadline& deadline, std::string& text) {
  while (deadline.waitToRead(pipe) > 0) {
    char buffer[4096];
    const ssize_t size = read(pipe, buffer, sizeof(buffer));
    if (size == 0) {
      return true;
    }
    if (size > 0) {
      text.append(buffer, static_cast<std::size_t>(size));
    }
  }
  return false;
}

Finding conclude(const std::string& text, int status) {
  if (WIFSIGNALED(status)) {
    return broken(std::string("the process ended with \"") + strsignal(WTERMSIG(status)) + "\"");
  }
  if (text.empty() || WEXITSTATUS(status) != 0) {
    return broken("the process ended without an answer");
  }
  return {static_cast<Verdict>(text[0] - '0'), text.substr(1)};
}

}  // namespace

Finding runApart(const Check& check, int seconds) {
  base::Pipe pipe = base::makePipe();
  if (!pipe.readEnd) {
    base::throwErrno("no pipe can be made");
  }
  const pid_t child = startApart();
  if (child < 0) {
    base::throwErrno("no process can be started");
  }
  if (child == 0) {
    answer(check, pipe.writeEnd.get());
  }
  pipe.writeEnd.reset();
  std::string text;
  const bool answered = readAnswer(pipe.readEnd.get(), base::Deadline(seconds * 1000), text);
  running = 0;
  kill(-child, SIGKILL);  // what the check started as well
  const int status = base::waitForEnd(child);
  return answered ? conclude(text, status) : broken("no answer within " + std::to_string(seconds) + " s");
}

pid_t startChild(const std::function<bool()>& body) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(body() ? 0 : 1);
  }
  return child;
}

void catchInterruptions() {
  onEachSignal(onSignal);
}

int interruption() {
  return came;
}

}  // namespace conformance
