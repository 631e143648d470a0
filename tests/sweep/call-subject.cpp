// SPDX-License-Identifier: Apache-2.0
#include "call-subject.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>
#include <iterator>

namespace {

struct CallName {
  std::uint64_t number;
  const char* name;
};

constexpr CallName kCallNames[] = {
#include "system-call-names.inc"
};

enum class Subject { Path, OpenedPath, Descriptor, FutexOperation, FcntlCommand };

struct SubjectOf {
  const char* call;
  std::size_t argument;
  Subject kind;
};

constexpr SubjectOf kSubjects[] = {
    {"open", 0, Subject::OpenedPath},
    {"openat", 1, Subject::OpenedPath},
    {"stat", 0, Subject::Path},
    {"stat64", 0, Subject::Path},
    {"lstat", 0, Subject::Path},
    {"lstat64", 0, Subject::Path},
    {"newfstatat", 1, Subject::Path},
    {"fstatat64", 1, Subject::Path},
    {"statx", 1, Subject::Path},
    {"statfs", 0, Subject::Path},
    {"access", 0, Subject::Path},
    {"faccessat", 1, Subject::Path},
    {"faccessat2", 1, Subject::Path},
    {"readlink", 0, Subject::Path},
    {"readlinkat", 1, Subject::Path},
    {"mkdir", 0, Subject::Path},
    {"unlink", 0, Subject::Path},
    {"unlinkat", 1, Subject::Path},
    {"rename", 1, Subject::Path},
    {"renameat", 3, Subject::Path},
    {"renameat2", 3, Subject::Path},
    {"rmdir", 0, Subject::Path},
    {"link", 1, Subject::Path},
    {"chmod", 0, Subject::Path},
    {"mount", 1, Subject::Path},
    {"umount2", 0, Subject::Path},
    {"execve", 0, Subject::Path},
    {"read", 0, Subject::Descriptor},
    {"pread64", 0, Subject::Descriptor},
    {"write", 0, Subject::Descriptor},
    {"writev", 0, Subject::Descriptor},
    {"pwrite64", 0, Subject::Descriptor},
    {"fsync", 0, Subject::Descriptor},
    {"fdatasync", 0, Subject::Descriptor},
    {"fstat", 0, Subject::Descriptor},
    {"fstat64", 0, Subject::Descriptor},
    {"close", 0, Subject::Descriptor},
    {"lseek", 0, Subject::Descriptor},
    {"_llseek", 0, Subject::Descriptor},
    {"ioctl", 0, Subject::Descriptor},
    {"fcntl", 1, Subject::FcntlCommand},
    {"fcntl64", 1, Subject::FcntlCommand},
    {"flock", 0, Subject::Descriptor},
    {"fallocate", 0, Subject::Descriptor},
    {"fadvise64", 0, Subject::Descriptor},
    {"fadvise64_64", 0, Subject::Descriptor},
    {"getdents64", 0, Subject::Descriptor},
    {"ftruncate", 0, Subject::Descriptor},
    {"ftruncate64", 0, Subject::Descriptor},
    {"connect", 0, Subject::Descriptor},
    {"sendmsg", 0, Subject::Descriptor},
    {"recvmsg", 0, Subject::Descriptor},
    {"futex", 1, Subject::FutexOperation},
    {"futex_time64", 1, Subject::FutexOperation},
};

// Up to its NUL, and at most PATH_MAX bytes; page by page, since the next page may be none.
std::string textAt(pid_t process, std::uint64_t address) {
  std::string text;
  const auto page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  while (text.size() < PATH_MAX) {
    char block[256];
    const iovec local{block,
                      static_cast<std::size_t>(std::min<std::uint64_t>(sizeof block, page - address % page))};
    // NOLINTNEXTLINE(performance-no-int-to-ptr): an address of the other process
    const iovec remote{reinterpret_cast<void*>(static_cast<std::uintptr_t>(address)), local.iov_len};
    const ssize_t count = process_vm_readv(process, &local, 1, &remote, 1, 0);
    if (count <= 0) {
      break;
    }
    const std::size_t length = ::strnlen(block, static_cast<std::size_t>(count));
    text.append(block, length);
    if (length < static_cast<std::size_t>(count)) {
      break;
    }
    address += static_cast<std::uint64_t>(count);
  }
  return text;
}

std::string fileOf(pid_t process, std::uint64_t descriptor) {
  if (descriptor == STDOUT_FILENO || descriptor == STDERR_FILENO) {
    return descriptor == STDOUT_FILENO ? "standard output" : "standard error";
  }
  const std::string link =
      "/proc/" + std::to_string(process) + "/fd/" + std::to_string(static_cast<int>(descriptor));
  char target[PATH_MAX];
  const ssize_t length = readlink(link.c_str(), target, sizeof target);
  return length > 0 ? std::string(target, static_cast<std::size_t>(length)) : "";
}

std::string futexOperation(std::uint64_t operation) {
  switch (static_cast<int>(operation) & FUTEX_CMD_MASK) {
    case FUTEX_WAIT:
    case FUTEX_WAIT_BITSET:
      return "wait";
    case FUTEX_WAKE:
    case FUTEX_WAKE_BITSET:
      return "wake";
    default:
      return "other";
  }
}

std::string fcntlCommand(std::uint64_t command) {
  switch (command) {
    case F_DUPFD:
    case F_DUPFD_CLOEXEC:
      return "duplicate";
    case F_SETLK:
    case F_SETLKW:
    case F_OFD_SETLK:
    case F_OFD_SETLKW:
      return "lock";
    default:
      return "other";
  }
}

std::string rawSubject(pid_t process, const SystemCall& call) {
  for (const SubjectOf& subject : kSubjects) {
    if (call.name != subject.call) {
      continue;
    }
    const std::uint64_t value = call.arguments[subject.argument];
    switch (subject.kind) {
      case Subject::Path:
        return textAt(process, value);
      case Subject::OpenedPath:
        return ((call.arguments[subject.argument + 1] & O_CREAT) != 0 ? "create " : "") +
               textAt(process, value);
      case Subject::Descriptor:
        return fileOf(process, value);
      case Subject::FutexOperation:
        return futexOperation(value);
      case Subject::FcntlCommand:
        return fcntlCommand(value);
    }
  }
  return "";
}

// The C library gives the lock's file a random name before it gets its own.
void hideRandomName(std::string& text) {
  constexpr char kBeginning[] = "/dev/shm/sem.";
  constexpr char kLock[] = "/dev/shm/sem.SEM_UPDATE_CONTROL";
  const std::size_t begin = text.find(kBeginning);
  if (begin == std::string::npos || text.compare(begin, sizeof kLock - 1, kLock) == 0) {
    return;
  }
  const std::size_t name = begin + sizeof kBeginning - 1;
  text.replace(name, std::min<std::size_t>(6, text.size() - name), "#");
}

// A file that is named by its hash, where what is hashed is made anew for each sweep.
void hideHash(std::string& text) {
  constexpr char kDigits[] = "0123456789abcdef";
  constexpr std::size_t kLength = 64;
  const std::size_t begin = text.find_last_of("/ ") + 1;  // 0 when there is none
  const std::size_t end = text.find_first_not_of(kDigits, begin);
  if (std::min(end, text.size()) - begin == kLength) {
    text.replace(begin, kLength, "#");
  }
}

std::string withoutNumbers(const std::string& text) {
  std::string result;
  for (const char c : text) {
    const bool digit = c >= '0' && c <= '9';
    if (!digit) {
      result += static_cast<unsigned char>(c) < 0x20 ? '?' : c;
    } else if (result.empty() || result.back() != '#') {
      result += '#';
    }
  }
  return result;
}

std::string nameOfCall(std::uint64_t number) {
  const auto* const found = std::find_if(std::begin(kCallNames), std::end(kCallNames),
                                         [number](const CallName& call) { return call.number == number; });
  return found != std::end(kCallNames) ? found->name : "call-" + std::to_string(number);
}

#ifdef __NR_socketcall
// By the first argument; the second is the address of the call's own arguments.
constexpr const char* kSocketCalls[] = {
    "",           "socket",  "bind",    "connect",  "listen",   "accept",   "getsockname", "getpeername",
    "socketpair", "send",    "recv",    "sendto",   "recvfrom", "shutdown", "setsockopt",  "getsockopt",
    "sendmsg",    "recvmsg", "accept4", "recvmmsg", "sendmmsg"};

SystemCall socketCall(pid_t process, std::uint64_t kind, std::uint64_t address) {
  SystemCall call{kind < std::size(kSocketCalls) ? kSocketCalls[kind] : "socketcall", {}};
  std::array<unsigned long, 6> words = {};
  const iovec local{words.data(), sizeof words};
  const iovec remote{reinterpret_cast<void*>(static_cast<std::uintptr_t>(address)), sizeof words};
  process_vm_readv(process, &local, 1, &remote, 1, 0);
  std::copy(words.begin(), words.end(), call.arguments.begin());
  return call;
}
#endif

}  // namespace

SystemCall systemCall([[maybe_unused]] pid_t process, std::uint64_t number, const std::uint64_t* arguments) {
#ifdef __NR_socketcall
  if (number == __NR_socketcall)
    return socketCall(process, arguments[0], arguments[1]);
#endif
  SystemCall call{nameOfCall(number), {}};
  std::copy_n(arguments, call.arguments.size(), call.arguments.begin());
  return call;
}

std::string subjectOfCall(pid_t process, const SystemCall& call) {
  std::string subject = rawSubject(process, call);
  hideRandomName(subject);
  hideHash(subject);
  return withoutNumbers(subject);
}
