#include "runner.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <string>
#include <system_error>

namespace conformance {
namespace {

using Clock = std::chrono::steady_clock;

// The child's answer: the verdict as a digit, then the sentence.
[[noreturn]] void answer(const Check& check, int pipe) {
  Finding finding;
  try {
    finding = check.run();
  } catch (const std::exception& error) {
    finding = broken(std::string("an exception was thrown: ") + error.what());
  }
  const std::string text = std::to_string(static_cast<int>(finding.verdict)) + finding.sentence;
  const bool told = write(pipe, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  _exit(told ? 0 : 1);
}

// What the child wrote until it ended; false when the time is over first.
bool readAnswer(int pipe, Clock::time_point deadline, std::string& text) {
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd waiting{pipe, POLLIN, 0};
    if (left.count() <= 0 || poll(&waiting, 1, static_cast<int>(left.count())) == 0) {
      return false;
    }
    char buffer[4096];
    const ssize_t size = read(pipe, buffer, sizeof(buffer));
    if (size == 0) {
      return true;
    }
    if (size > 0) {
      text.append(buffer, static_cast<std::size_t>(size));
    }
  }
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
  int ends[2];
  if (pipe(ends) != 0) {
    throw std::system_error(errno, std::generic_category(), "no pipe can be made");
  }
  const pid_t child = fork();
  if (child < 0) {
    throw std::system_error(errno, std::generic_category(), "no process can be started");
  }
  if (child == 0) {
    setpgid(0, 0);
    close(ends[0]);
    answer(check, ends[1]);
  }
  setpgid(child, child);  // whoever comes first: both sides rely on it
  close(ends[1]);
  std::string text;
  const bool answered = readAnswer(ends[0], Clock::now() + std::chrono::seconds(seconds), text);
  close(ends[0]);
  kill(-child, SIGKILL);  // what the check started as well
  int status = 0;
  waitpid(child, &status, 0);
  return answered ? conclude(text, status) : broken("no answer within " + std::to_string(seconds) + " s");
}

}  // namespace conformance
