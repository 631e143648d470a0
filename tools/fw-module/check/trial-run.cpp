// SPDX-License-Identifier: Apache-2.0
#include "trial-run.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>

#include "ending-signals.h"
#include "file-descriptor.h"
#include "outcome.h"
#include "printable-text.h"
#include "program-start.h"
#include "system-error.h"
#include "trial-child.h"

namespace fwmodule {
namespace {

using Clock = std::chrono::steady_clock;
using base::FileDescriptor;

constexpr std::size_t kLongestOutput = 200;           // of what a module printed, in a sentence
constexpr std::chrono::seconds kLongestSilence(120);  // outside the module

struct Call {
  EntryPoint entryPoint = {};
  std::string situation;
  Clock::time_point start;
};

// What the child has told so far.
struct Account {
  TrialResult result;
  std::map<std::uint32_t, Call> running;  // by thread
  Clock::time_point lastWord = Clock::now();
  std::optional<Record> end;  // Fault, Signal, Refused or Done
};

void take(const Record& record, Account& account) {
  account.lastWord = Clock::now();
  TrialResult& result = account.result;
  switch (record.kind) {
    case RecordKind::Enter:
      account.running[record.thread] = {record.entryPoint, record.text, Clock::now()};
      break;
    case RecordKind::Leave:
      account.running.erase(record.thread);
      break;
    case RecordKind::Passed:
      result.passed.push_back(record.check);
      break;
    case RecordKind::Finding:
      result.findings.push_back({record.check, record.entryPoint, record.text});
      break;
    case RecordKind::NotChecked:
      result.notChecked.emplace(record.check, record.text);
      break;
    case RecordKind::Fact:
      result.facts[record.fact] = record.text;
      break;
    case RecordKind::Fault:
    case RecordKind::Signal:
    case RecordKind::Refused:
    case RecordKind::Done:
      account.end = record;
      break;
  }
}

// ---- The child's life -----------------------------------------------------------------

class Child {
 public:
  Child(const Trial& trial, const Subject& subject) {
    base::Pipe records = base::makePipe(O_NONBLOCK);
    if (!records.readEnd) {
      base::throwErrno("pipe2");
    }
    records_ = std::move(records.readEnd);
    const FileDescriptor writeEnd = std::move(records.writeEnd);
    output_ = FileDescriptor(memfd_create("output", MFD_CLOEXEC));
    const pid_t parent = getpid();
    id_ = fork();
    if (id_ < 0) {
      base::throwErrno("fork");
    }
    if (id_ == 0) {
      fcntl(writeEnd.get(), F_SETFL, 0);  // the child waits until its words are heard
      runChild(trial, subject, writeEnd.get(), output_.get(), parent);
    }
    process_ = FileDescriptor(static_cast<int>(syscall(SYS_pidfd_open, id_, 0)));
    if (!process_) {
      base::throwErrno("pidfd_open");
    }
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() { wait(); }

  // Until a record, the child's end, a signal or that time. False when it has ended.
  bool listen(Account& account, Clock::time_point until, int signals) {
    pollfd streams[] = {
        {ended_ ? -1 : records_.get(), POLLIN, 0}, {process_.get(), POLLIN, 0}, {signals, POLLIN, 0}};
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
    if (poll(streams, std::size(streams), static_cast<int>(std::max<long long>(left, 0))) < 0 &&
        errno != EINTR) {
      base::throwErrno("poll");
    }
    readRecords(account);
    return streams[1].revents == 0;
  }

  void kill() { ::kill(id_, SIGKILL); }

  // Its status. Nothing that it started is left after it: orphans become this process's.
  int wait() {
    if (id_ <= 0) {
      return status_;
    }
    kill();
    status_ = base::waitForEnd(id_);
    id_ = 0;
    return status_;
  }

  std::string output() const {
    std::string text(kLongestOutput, '\0');
    const ssize_t length = pread(output_.get(), text.data(), text.size(), 0);
    text.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    return text;
  }

 private:
  void readRecords(Account& account) {
    Record record = {};
    ssize_t length = 0;
    while ((length = read(records_.get(), &record, sizeof record)) == static_cast<ssize_t>(sizeof record)) {
      take(record, account);
    }
    ended_ = length == 0;
  }

  FileDescriptor records_;
  FileDescriptor output_;
  FileDescriptor process_;
  bool ended_ = false;  // no more records will come
  pid_t id_ = 0;
  int status_ = 0;
};

// Ends what the child's module started and left. Returns how many there were.
int endOrphans() {
  int ended = 0;
  for (;;) {
    std::ifstream list("/proc/self/task/" + std::to_string(getpid()) + "/children");
    const std::vector<pid_t> children{std::istream_iterator<pid_t>(list), {}};
    if (children.empty()) {
      return ended;
    }
    for (const pid_t child : children) {
      ::kill(child, SIGKILL);
      ended += waitpid(child, nullptr, 0) == child ? 1 : 0;
    }
  }
}

// ---- What came of it ---------------------------------------------------------------------

const Call* oldestCall(const Account& account) {
  const auto oldest = std::min_element(
      account.running.begin(), account.running.end(),
      [](const auto& left, const auto& right) { return left.second.start < right.second.start; });
  return oldest == account.running.end() ? nullptr : &oldest->second;
}

// The call that the record is about, or else the one that has been running longest.
const Call* callOf(const Account& account, const Record& record) {
  const auto own = account.running.find(record.thread);
  return own != account.running.end() ? &own->second : oldestCall(account);
}

std::string printed(const Child& child) {
  std::string output = child.output();
  std::replace(output.begin(), output.end(), '\n', ' ');
  return base::printableText(output.substr(0, output.find_last_not_of(' ') + 1));
}

// "doUpdate crashed (Aborted) with a good image. It printed: ..."
void cutOff(Account& account, Check check, const Call* call, const std::string& what,
            const std::string& output) {
  TrialResult& result = account.result;
  const EntryPoint entryPoint = call != nullptr ? call->entryPoint : EntryPoint::Nowhere;
  std::string sentence = call != nullptr ? infoOf(entryPoint).name : "The module";
  sentence += " " + what + (call != nullptr && !call->situation.empty() ? " " + call->situation : "") + ".";
  result.findings.push_back({check, entryPoint, sentence + (output.empty() ? "" : " It printed: " + output)});
  result.broken = entryPoint;
  result.cutOff = sentence;
}

std::string secondsText(std::chrono::seconds limit) {
  return std::to_string(limit.count()) + (limit.count() == 1 ? " second" : " seconds");
}

void judgeEnd(Account& account, const Child& child, int status, bool hung, std::chrono::seconds limit) {
  const std::string output = printed(child);
  const Call* const oldest = oldestCall(account);
  if (hung) {
    return cutOff(account, Check::Hang, oldest, "did not return within " + secondsText(limit), output);
  }
  if (account.end && account.end->kind == RecordKind::Fault) {
    return cutOff(account, account.end->check, callOf(account, *account.end), account.end->text, "");
  }
  if (WIFSIGNALED(status)) {
    const bool told = account.end && account.end->kind == RecordKind::Signal;
    const Call* const call = told ? callOf(account, *account.end) : oldest;
    return cutOff(account, Check::Crash, call, std::string("crashed (") + strsignal(WTERMSIG(status)) + ")",
                  output);
  }
  const bool ending = oldest != nullptr && oldest->entryPoint == EntryPoint::ProcessEnd;
  if (!account.end && !ending) {
    return cutOff(account, Check::Exit, oldest, "ended the process, or closed files that are not its own",
                  output);
  }
  if (!output.empty()) {
    account.result.findings.push_back({Check::Prints, EntryPoint::Nowhere, "The module printed: " + output});
  }
}

void requireTrial(const Account& account, bool hung) {
  if (account.end && account.end->kind == RecordKind::Refused) {
    throw Failure(Outcome::NotPossible, account.end->text);
  }
  if (hung && account.running.empty()) {
    throw Failure(Outcome::Unexpected, "the check itself did not go on");
  }
}

Clock::time_point deadlineOf(const Account& account, std::chrono::seconds limit) {
  const Call* const oldest = oldestCall(account);
  return oldest != nullptr ? oldest->start + limit : account.lastWord + std::max(limit, kLongestSilence);
}

}  // namespace

TrialResult runTrial(const Trial& trial, const Subject& subject, std::chrono::seconds limit) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  const EndingSignals signals;
  Account account;
  Child child(trial, subject);
  bool hung = false;
  int signal = 0;
  while (!hung && signal == 0 && child.listen(account, deadlineOf(account, limit), signals.descriptor())) {
    signal = signals.take();
    hung = Clock::now() >= deadlineOf(account, limit);
  }
  const int status = child.wait();
  if (signal == 0) {  // a terminal sends it to the child too, whose end may be seen first
    signal = signals.take();
  }
  if (signal != 0) {
    endOrphans();
    throw tool::Interrupted(signal);
  }
  requireTrial(account, hung);
  judgeEnd(account, child, status, hung, limit);
  if (const int left = endOrphans(); left > 0 && account.result.cutOff.empty()) {
    account.result.findings.push_back({Check::Processes, EntryPoint::Nowhere,
                                       "The module left processes behind: " + std::to_string(left) + "."});
  }
  return account.result;
}

}  // namespace fwmodule
