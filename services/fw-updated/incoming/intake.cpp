// SPDX-License-Identifier: Apache-2.0
#include "intake.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <set>
#include <string>
#include <utility>

#include "program-start.h"
#include "refusal.h"
#include "system-error.h"
#include "whole-file.h"

namespace updated {
namespace {

constexpr std::size_t kMostTurns = 8;
constexpr std::size_t kLongestAnswer = 4096;
constexpr char kAgain[] = "Hand it over again.";

std::string textOf(const Taken& taken) {
  std::string text;
  for (const std::string& line : {taken.error, taken.sentence, taken.remedy, taken.folder}) {
    text += line + "\n";
  }
  return text;
}

// Something else when it did not come to its end.
Taken takenOf(const std::string& text) {
  std::array<std::string, 4> lines;
  std::size_t begin = 0;
  for (std::string& line : lines) {
    const std::size_t end = text.find('\n', begin);
    if (end == std::string::npos) {
      return {kFailed, "It could not be taken: what copies it was ended.", kAgain, ""};
    }
    line = text.substr(begin, end - begin);
    begin = end + 1;
  }
  return {lines[0], lines[1], lines[2], lines[3]};
}

// The service's connection and everything else that is not for the child.
void closeAllBut(const std::set<int>& kept) {
  std::set<int> others;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    others.insert(std::stoi(entry.path().filename().string()));
  }
  for (const int number : others) {
    if (number > STDERR_FILENO && kept.count(number) == 0) {
      close(number);
    }
  }
}

// It does not outlive the service: nobody would hear its answer.
[[noreturn]] void takeInChild(const HandOver& handOver, int answer, pid_t service) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  std::set<int> kept{answer};
  for (const auto& file : handOver.files) {
    kept.insert(file.second.get());
  }
  closeAllBut(kept);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  if (getppid() == service) {
    base::writeAll(answer, textOf(take(handOver)));
  }
  _exit(0);
}

}  // namespace

Intake::~Intake() {
  if (process_ > 0) {
    kill(process_, SIGKILL);
    base::waitForEnd(process_);
  }
}

void Intake::take(HandOver handOver, Problem problem, Then then) {
  if (turns_.size() >= kMostTurns) {
    then({kTooMany, "Too much is being handed over already.", "Hand it over again later.", ""});
    return;
  }
  turns_.push_back({std::move(handOver), std::move(problem), std::move(then)});
  if (turns_.size() == 1) {
    next_ = loop_.soon([this] { startNext(); });
  }
}

void Intake::startNext() {
  if (turns_.empty()) {
    return;
  }
  if (const Taken problem = turns_.front().problem(); !problem.error.empty()) {
    finish(problem);
    return;
  }
  if (const int error = start(turns_.front().handOver); error != 0) {
    finish({kFailed, "It cannot be taken: " + base::errnoText(error) + ".", kAgain, ""});
  }
}

int Intake::start(const HandOver& handOver) {
  base::Pipe pipe = base::makePipe();
  if (!pipe.readEnd) {
    return errno;
  }
  const pid_t service = getpid();
  process_ = fork();
  if (process_ == 0) {
    takeInChild(handOver, pipe.writeEnd.get(), service);
  }
  if (process_ < 0) {
    return errno;
  }
  answer_ = std::move(pipe.readEnd);
  ending_ = loop_.whenEnded(process_, [this](int) { ended(); });
  patience_ = loop_.after(patienceTime_, [this] { kill(process_, SIGKILL); });
  return 0;
}

void Intake::ended() {
  process_ = -1;
  patience_ = Source();
  std::string text;
  base::readToEnd(answer_.get(), kLongestAnswer, text);
  answer_.reset();
  finish(takenOf(text));
}

// Its descriptors are closed before the answer is known.
void Intake::finish(const Taken& taken) {
  const Then then = std::move(turns_.front().then);
  turns_.pop_front();
  next_ = loop_.soon([this] { startNext(); });
  then(taken);
}

}  // namespace updated
