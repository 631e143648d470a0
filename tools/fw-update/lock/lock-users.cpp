// SPDX-License-Identifier: Apache-2.0
#include "lock/lock-users.h"

#include <linux/futex.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <limits>
#include <optional>
#include <sstream>
#include <system_error>

#include "mount-table.h"
#include "whole-file.h"

namespace tool {
namespace {

namespace fs = std::filesystem;

// The first PID namespace has this number on every kernel; it sees all processes.
constexpr const char* kInitialNamespace = "pid:[4026531836]";
constexpr unsigned long kKernelThread = 0x00200000;  // PF_KTHREAD of the kernel

constexpr std::size_t kGreatestList = 5;
constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();

// futex of 64-bit programs, of 32-bit ones, and of 32-bit ones with 64-bit times.
constexpr long kFutexCalls[] = {202, 240, 422};

struct Range {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
};

// One line of a list of mappings. Some file systems show another device there than
// stat tells, so mappings are compared with each other.
struct Mapping {
  Range range;
  unsigned int major = 0;
  unsigned int minor = 0;
  unsigned long long inode = 0;

  bool isOfSameFile(const Mapping& other) const {
    return major == other.major && minor == other.minor && inode == other.inode;
  }
};

// The lock's file, as lists of mappings and as descriptors show it.
struct LockFile {
  Mapping own;
  struct stat status;
  std::string fileSystem;  // its number in lists of mounts; empty when not known
};

// A file of /proc, or as errno why it cannot be read.
struct Content {
  std::string text;
  int error = 0;
};

Content contentOf(const std::string& path) {
  Content content;
  content.error = base::readFile(path, kNoLimit, content.text);
  return content;
}

// The numbers that a directory of /proc has entries for, in order. Empty when it
// cannot be read to its end.
std::vector<pid_t> numbersIn(const std::string& directory) {
  std::vector<pid_t> numbers;
  std::error_code error;
  for (auto entry = fs::directory_iterator(directory, error); !error && entry != fs::directory_iterator();
       entry.increment(error)) {
    const std::string name = entry->path().filename();
    if (std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; })) {
      numbers.push_back(static_cast<pid_t>(std::strtol(name.c_str(), nullptr, 10)));
    }
  }
  if (error) {
    numbers.clear();
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

// "7f10a000-7f10b000 rw-s 00000000 00:1a 35 /dev/shm/..."
std::vector<Mapping> mappingsIn(const std::string& maps) {
  std::vector<Mapping> mappings;
  std::istringstream lines(maps);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    Mapping mapping;
    std::string rights, offset;
    char mark = 0;
    if (words >> std::hex >> mapping.range.begin >> mark >> mapping.range.end >> rights >> offset >>
        mapping.major >> mark >> mapping.minor >> std::dec >> mapping.inode) {
      mappings.push_back(mapping);
    }
  }
  return mappings;
}

// Where a process has the lock mapped.
std::vector<Range> rangesOf(const std::string& maps, const LockFile& lock) {
  std::vector<Range> ranges;
  for (const Mapping& mapping : mappingsIn(maps)) {
    if (mapping.isOfSameFile(lock.own)) {
      ranges.push_back(mapping.range);
    }
  }
  return ranges;
}

std::string fileSystemOf(int descriptor) {
  std::istringstream words(contentOf("/proc/self/fdinfo/" + std::to_string(descriptor)).text);
  std::string number;
  for (std::string word; words >> word;) {
    if (word == "mnt_id:") {
      words >> number;
    }
  }
  for (const base::Mount& mount : base::mounts()) {
    if (mount.number == number) {
      return mount.fileSystem;
    }
  }
  return "";
}

// Whether the process has the lock's file system mounted, or does not show.
bool mayReach(const std::string& process, const LockFile& lock) {
  const std::vector<base::Mount> mounts = base::mounts(process);
  return mounts.empty() || lock.fileSystem.empty() ||
         std::any_of(mounts.begin(), mounts.end(),
                     [&lock](const base::Mount& mount) { return mount.fileSystem == lock.fileSystem; });
}

std::optional<LockFile> lockFileOf(const UpdateLock& lock) {
  const auto address = reinterpret_cast<std::uintptr_t>(lock.mapping());
  for (const Mapping& mapping : mappingsIn(contentOf("/proc/self/maps").text)) {
    LockFile file{mapping, {}, fileSystemOf(lock.descriptor())};
    if (mapping.range.begin == address && fstat(lock.descriptor(), &file.status) == 0) {
      return file;
    }
  }
  return std::nullopt;
}

// What the kernel keeps of a process in one line. Empty when it is gone.
struct ProcessState {
  char letter = '?';
  unsigned long flags = 0;
  unsigned long long started = 0;
};

std::optional<ProcessState> stateOf(const std::string& process) {
  const std::string line = contentOf(process + "/stat").text;
  const auto name = line.rfind(')');  // the name before it may hold anything
  if (name == std::string::npos) {
    return std::nullopt;
  }
  std::istringstream words(line.substr(name + 1));
  ProcessState state;
  std::string skipped;
  words >> state.letter;
  for (int field = 4; field <= 8; ++field) {
    words >> skipped;
  }
  words >> state.flags;
  for (int field = 10; field <= 21; ++field) {
    words >> skipped;
  }
  words >> state.started;
  return state;
}

// A process whose first thread has ended shows its mappings, or that it hides them, with the
// others only.
Content mapsOf(const std::string& process) {
  Content maps = contentOf(process + "/maps");
  if (maps.error != 0 || !maps.text.empty()) {
    return maps;
  }
  for (const pid_t thread : numbersIn(process + "/task")) {
    Content more = contentOf(process + "/task/" + std::to_string(thread) + "/maps");
    if (!more.text.empty()) {
      return more;
    }
    if (more.error != 0) {
      maps.error = more.error;
    }
  }
  return maps;
}

bool hasOpen(const std::string& process, const LockFile& lock) {
  const std::string name = UpdateLock::path().substr(UpdateLock::path().rfind('/'));
  for (const pid_t number : numbersIn(process + "/fd")) {
    const std::string link = process + "/fd/" + std::to_string(number);
    std::error_code error;
    struct stat status {};
    // By its name first: asking a file of a server that is gone would wait for it.
    if (fs::read_symlink(link, error).string().find(name) != std::string::npos &&
        stat(link.c_str(), &status) == 0 && status.st_dev == lock.status.st_dev &&
        status.st_ino == lock.status.st_ino) {
      return true;
    }
  }
  return false;
}

// Whether the thread is blocked in the wait for the semaphore. One that was woken up
// and has not run since counts as running.
bool isWaiting(const std::string& thread, const std::vector<Range>& lock) {
  std::istringstream call(contentOf(thread + "/syscall").text);
  long number = -1;
  std::uint64_t address = 0;
  std::uint64_t operation = 0;
  if (!(call >> number >> std::hex >> address >> operation) ||
      std::find(std::begin(kFutexCalls), std::end(kFutexCalls), number) == std::end(kFutexCalls)) {
    return false;
  }
  const int command = static_cast<int>(operation) & FUTEX_CMD_MASK;
  return (command == FUTEX_WAIT || command == FUTEX_WAIT_BITSET) &&
         std::any_of(lock.begin(), lock.end(),
                     [=](const Range& range) { return address >= range.begin && address < range.end; });
}

bool isThisProgram(const std::string& process) {
  struct stat own {
  }, other{};
  return stat("/proc/self/exe", &own) == 0 && stat((process + "/exe").c_str(), &other) == 0 &&
         own.st_dev == other.st_dev && own.st_ino == other.st_ino;
}

// A thread that waits does not hold the lock, but another one of its process may;
// except in this program, which requests one update at a time.
LockRole roleOf(const std::string& process, std::size_t waiting, std::size_t threads) {
  if (waiting > 0 && (waiting == threads || isThisProgram(process))) {
    return LockRole::Waits;
  }
  return LockRole::MayHold;
}

std::string commandOf(const std::string& process) {
  std::string command = contentOf(process + "/cmdline").text;
  while (!command.empty() && command.back() == '\0') {
    command.pop_back();
  }
  std::replace(command.begin(), command.end(), '\0', ' ');
  if (!command.empty()) {
    return command;
  }
  std::string name = contentOf(process + "/comm").text;
  name.erase(std::remove(name.begin(), name.end(), '\n'), name.end());
  return "[" + name + "]";
}

// The number when the user has no name.
std::string nameOf(uid_t user) {
  passwd entry{};
  passwd* found = nullptr;
  std::array<char, 4096> texts{};
  const int error = getpwuid_r(user, &entry, texts.data(), texts.size(), &found);
  return error == 0 && found != nullptr ? found->pw_name : std::to_string(user);
}

std::string userOf(const std::string& process) {
  std::istringstream lines(contentOf(process + "/status").text);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string label;
    uid_t real = 0;
    uid_t effective = 0;
    if (!(words >> label >> real >> effective) || label != "Uid:") {
      continue;
    }
    return nameOf(effective);
  }
  return "?";
}

LockUser describe(pid_t number, const std::string& process, const ProcessState& state) {
  LockUser user;
  user.process = number;
  user.started = state.started;
  user.user = userOf(process);
  user.command = commandOf(process);
  return user;
}

// Ended, maybe without having been waited for.
bool isGone(const std::string& process) {
  const auto state = stateOf(process);
  return !state || (state->letter == 'Z' && numbersIn(process + "/task").size() < 2);
}

// Adds the process if it has the lock open.
void look(LockUsers& found, pid_t number, const LockFile& lock) {
  const std::string process = "/proc/" + std::to_string(number);
  const auto state = stateOf(process);
  if (!state || (state->flags & kKernelThread) != 0) {
    return;
  }
  // First whether it is opening the lock, then whether it has mapped it: the other way
  // round, one that does both in between would not be seen.
  const bool opens = hasOpen(process, lock);
  const Content maps = mapsOf(process);
  if (maps.error != 0) {
    if (!isGone(process) && mayReach(process, lock)) {
      found.hidden.push_back(number);
    }
    return;
  }
  const std::vector<Range> ranges = rangesOf(maps.text, lock);
  if (ranges.empty() && !opens) {
    return;
  }
  LockUser user = describe(number, process, *state);
  user.role = LockRole::HasOpen;
  if (!ranges.empty()) {
    const std::vector<pid_t> threads = numbersIn(process + "/task");
    user.waitingThreads =
        static_cast<std::size_t>(std::count_if(threads.begin(), threads.end(), [&](pid_t thread) {
          return isWaiting(process + "/task/" + std::to_string(thread), ranges);
        }));
    user.role = roleOf(process, user.waitingThreads, threads.size());
  }
  found.users.push_back(user);
}

}  // namespace

bool operator==(const LockUser& left, const LockUser& right) {
  return left.process == right.process && left.started == right.started && left.role == right.role &&
         left.waitingThreads == right.waitingThreads;
}

bool LockUsers::has(LockRole role) const {
  return std::any_of(users.begin(), users.end(), [role](const LockUser& user) { return user.role == role; });
}

std::string LockUsers::blindSpot() const {
  if (!allProcesses) {
    return "/proc does not show all processes here.";
  }
  if (!hidden.empty()) {
    std::string numbers;
    for (std::size_t i = 0; i < std::min(hidden.size(), kGreatestList); ++i) {
      numbers += (i == 0 ? "" : ", ") + std::to_string(hidden[i]);
    }
    if (hidden.size() > kGreatestList) {
      numbers += " and " + std::to_string(hidden.size() - kGreatestList) + " more";
    }
    return (hidden.size() == 1 ? "Process " : "Processes ") + numbers + " cannot be looked at by this user.";
  }
  if (!allNamespaces) {
    return "Processes outside this PID namespace cannot be seen from here.";
  }
  return "";
}

LockUsers findLockUsers(const UpdateLock& lock) {
  LockUsers found;
  std::error_code error;
  const auto file = lockFileOf(lock);
  const std::vector<pid_t> processes = numbersIn("/proc");
  // Not getpid: /proc may be that of another namespace.
  const std::string self = fs::read_symlink("/proc/self", error);
  found.allNamespaces = fs::read_symlink("/proc/self/ns/pid", error) == kInitialNamespace;
  found.allProcesses = file && !processes.empty() && access("/proc/1/stat", F_OK) == 0;
  for (const pid_t number : processes) {
    if (file && std::to_string(number) != self) {
      look(found, number, *file);
    }
  }
  return found;
}

}  // namespace tool
