// SPDX-License-Identifier: Apache-2.0
#include "tracer.h"

#include <elf.h>
#include <sys/ptrace.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "call-subject.h"

namespace {

#if defined(__x86_64__)
constexpr std::size_t kCallRegister = offsetof(struct user, regs.orig_rax);
constexpr std::size_t kResultRegister = offsetof(struct user, regs.rax);
constexpr std::size_t kFirstArgument = offsetof(struct user, regs.rdi);
constexpr std::size_t kInstructionPointer = offsetof(struct user, regs.rip);
#elif defined(__i386__)
constexpr std::size_t kCallRegister = offsetof(struct user, regs.orig_eax);
constexpr std::size_t kResultRegister = offsetof(struct user, regs.eax);
constexpr std::size_t kFirstArgument = offsetof(struct user, regs.ebx);
constexpr std::size_t kInstructionPointer = offsetof(struct user, regs.eip);
#else
#error "the registers of a system call are not known for this processor"
#endif

constexpr int kCallStop = SIGTRAP | 0x80;  // with PTRACE_O_TRACESYSGOOD
constexpr long kBreakInstruction = 0xCC;

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// Where the program begins when it is loaded.
unsigned long entryOf(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/auxv", std::ios::binary);
  for (unsigned long pair[2]; file.read(reinterpret_cast<char*>(pair), sizeof pair);) {
    if (pair[0] == AT_ENTRY) {
      return pair[1];
    }
  }
  throw std::runtime_error("the program's entry is not known");
}

}  // namespace

Tracer::Tracer(const char* record, Target target, bool withChildren)
    : target_(std::move(target)), withChildren_(withChildren), record_(std::fopen(record, "we")) {
  if (!record_) {
    fail(record);
  }
}

void Tracer::start(char** program) {
  leader_ = fork();
  if (leader_ < 0) {
    fail("fork");
  }
  if (leader_ == 0) {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
    execvp(program[0], program);
    std::perror(program[0]);
    _exit(kNotTraced);
  }
  int status = 0;
  if (waitpid(leader_, &status, 0) != leader_ || !WIFSTOPPED(status)) {
    fail("the program does not stop");
  }
  const long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL |
                       (withChildren_ ? PTRACE_O_TRACEFORK : 0);
  if (ptrace(PTRACE_SETOPTIONS, leader_, nullptr, options) != 0) {
    fail("ptrace");
  }
  threads_[leader_].name = "0";
  threads_[leader_].process = leader_;
  goOn(leader_, 0);
}

int Tracer::run(char** program) {
  start(program);
  for (;;) {
    int status = 0;
    const pid_t id = waitpid(-1, &status, __WALL);
    if (id < 0 && errno == EINTR) {
      continue;
    }
    if (id < 0) {
      fail("waitpid");
    }
    if (WIFSTOPPED(status)) {
      handleStop(id, status);
      continue;
    }
    threads_.erase(id);
    if (id == leader_) {
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
  }
}

void Tracer::handleStop(pid_t id, int status) {
  const auto thread = threads_.find(id);
  if (thread == threads_.end() && !released_) {
    early_.insert(id);
    return;
  }
  const int signal = WSTOPSIG(status);
  const int event = status >> 16;
  if (event != 0) {
    if (handleEvent(id, event)) {
      goOn(id, 0);
    }
    return;
  }
  if (signal != kCallStop) {
    if (signal == SIGTRAP && reachedEntry(id)) {
      return goOn(id, 0);
    }
    goOn(id, thread == threads_.end() && signal == SIGSTOP ? 0 : signal);
    return;
  }
  handleCall(id);
  goOn(id, 0);
}

void Tracer::handleCall(pid_t id) {
  __ptrace_syscall_info info = {};
  ptrace(PTRACE_GET_SYSCALL_INFO, id, sizeof info, &info);
  if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
    enterCall(id, info.entry.nr, info.entry.args);
  } else if (info.op == PTRACE_SYSCALL_INFO_EXIT) {
    leaveCall(id);
  }
}

// Whether it is still traced.
bool Tracer::handleEvent(pid_t id, int event) {
  if (event == PTRACE_EVENT_EXEC && id != leader_) {
    threads_.erase(id);
    return ptrace(PTRACE_DETACH, id, nullptr, nullptr) != 0;
  }
  if (event == PTRACE_EVENT_EXEC) {
    breakAtEntry();
    return true;
  }
  unsigned long started = 0;
  const bool isChild = event == PTRACE_EVENT_FORK;
  if ((!isChild && event != PTRACE_EVENT_CLONE) || ptrace(PTRACE_GETEVENTMSG, id, nullptr, &started) != 0) {
    return true;
  }
  const auto newId = static_cast<pid_t>(started);
  Thread& starter = threads_[id];
  adopt(newId, starter.name + "." + std::to_string(++starter.started), isChild ? newId : starter.process);
  return true;
}

void Tracer::breakAtEntry() {
  entry_ = entryOf(leader_);
  replaced_ = ptrace(PTRACE_PEEKTEXT, leader_, entry_, nullptr);
  ptrace(PTRACE_POKETEXT, leader_, entry_, (replaced_ & ~0xFFL) | kBreakInstruction);
}

bool Tracer::reachedEntry(pid_t id) {
  if (running_ ||
      static_cast<unsigned long>(ptrace(PTRACE_PEEKUSER, id, kInstructionPointer, nullptr)) != entry_ + 1) {
    return false;
  }
  ptrace(PTRACE_POKETEXT, id, entry_, replaced_);
  ptrace(PTRACE_POKEUSER, id, kInstructionPointer, entry_);
  running_ = true;
  return true;
}

void Tracer::adopt(pid_t id, const std::string& name, pid_t process) {
  if (early_.erase(id) == 0) {
    int status = 0;
    waitpid(id, &status, __WALL);  // its first stop
  }
  threads_[id].name = name;
  threads_[id].process = process;
  goOn(id, 0);
}

void Tracer::enterCall(pid_t id, std::uint64_t callNumber, const std::uint64_t* arguments) {
  if (!running_ || released_) {
    return;
  }
  Thread& thread = threads_[id];
  const SystemCall call = systemCall(thread.process, callNumber, arguments);
  const std::string subject = subjectOfCall(thread.process, call);
  const unsigned long number = ++thread.calls[call.name + ' ' + subject];
  const bool isTarget = number == target_.number && call.name == target_.call && subject == target_.subject &&
                        thread.name == target_.thread;
  std::fprintf(record_.get(), "%s%s\t%s\t%s\t%lu\n", isTarget ? "!" : "", thread.name.c_str(),
               call.name.c_str(), subject.c_str(), number);
  if (isTarget) {
    interrupt(id, thread);
  }
}

void Tracer::interrupt(pid_t id, Thread& thread) {
  if (target_.action == kActionKill) {
    kill(thread.process, SIGKILL);
    return;
  }
  thread.fails = true;
  if (target_.call == "brk") {
    // It has no error: without memory its answer is the old end, as for this argument.
    argument_ = ptrace(PTRACE_PEEKUSER, id, kFirstArgument, nullptr);
    ptrace(PTRACE_POKEUSER, id, kFirstArgument, 0L);
  } else if (target_.call != "close") {
    // The kernel refuses a call with this number. A close that fails has closed.
    ptrace(PTRACE_POKEUSER, id, kCallRegister, -1L);
  }
}

void Tracer::leaveCall(pid_t id) {
  Thread& thread = threads_[id];
  if (!thread.fails) {
    return;
  }
  thread.fails = false;
  released_ = true;
  if (target_.call == "brk") {
    ptrace(PTRACE_POKEUSER, id, kFirstArgument, argument_);
  } else {
    ptrace(PTRACE_POKEUSER, id, kResultRegister, static_cast<long>(-target_.action));
  }
}

// A thread that is gone by now is not missed.
void Tracer::goOn(pid_t id, int signal) const {
  ptrace(released_ ? PTRACE_DETACH : PTRACE_SYSCALL, id, nullptr, static_cast<long>(signal));
}
