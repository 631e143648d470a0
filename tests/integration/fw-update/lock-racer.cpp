// SPDX-License-Identifier: Apache-2.0
// Preloaded into the command: does to the update lock what another process may do in
// between, as LOCK_RACE says.
// - post-before-lease: gives it back just before the kernel is asked who uses it
// - post-before-watch: just before others' opens are watched
// - open-while-looking: opens it whenever its users are looked for
//   With these two the kernel cannot tell who uses it.
// - end-while-looking: ends LOCK_RACE_PROCESS when its mappings are looked at, and lets
//   nobody see them
// - hurry: lets five seconds pass at each look at the clock

// The calls are taken over under each of their names.
#undef _FILE_OFFSET_BITS
#undef _TIME_BITS

#include <dlfcn.h>
#include <fcntl.h>
#include <semaphore.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace {

constexpr const char* kLock = "/dev/shm/sem.SEM_UPDATE_CONTROL";

bool races(const char* how) {
  const char* const wanted = std::getenv("LOCK_RACE");
  return wanted != nullptr && std::strcmp(wanted, how) == 0;
}

template <typename Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void post() {
  const int file = open(kLock, O_RDWR | O_CLOEXEC);
  void* const lock = mmap(nullptr, sizeof(sem_t), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  close(file);
  sem_post(static_cast<sem_t*>(lock));
  munmap(lock, sizeof(sem_t));
}

// Its parent has not waited for it.
void end(const char* process) {
  kill(static_cast<pid_t>(std::strtol(process, nullptr, 10)), SIGKILL);
  const std::string path = std::string("/proc/") + process + "/stat";
  for (char state = '?'; state != 'Z';) {
    char line[256] = "";
    std::FILE* const file = std::fopen(path.c_str(), "r");
    if (file == nullptr || std::fgets(line, sizeof line, file) == nullptr) {
      return;
    }
    std::fclose(file);
    state = std::strrchr(line, ')')[2];
  }
}

bool endsNow(const char* path) {
  const char* const process = std::getenv("LOCK_RACE_PROCESS");
  return races("end-while-looking") && process != nullptr &&
         std::string("/proc/") + process + "/maps" == path;
}

int openFile(const char* path, int flags, mode_t mode) {
  if (!endsNow(path)) {
    return real<int(const char*, int, ...)>("open64")(path, flags, mode);
  }
  end(std::getenv("LOCK_RACE_PROCESS"));
  errno = EACCES;
  return -1;
}

int setLease(int file, std::uintptr_t argument) {
  if (races("post-before-watch") || races("open-while-looking")) {
    errno = EINVAL;
    return -1;
  }
  static int asked = 0;  // the first time is a trial
  if (argument == F_WRLCK && ++asked == 2 && races("post-before-lease")) {
    post();
  }
  return real<int(int, int, ...)>("fcntl")(file, F_SETLEASE, argument);
}

int control(int file, int command, std::uintptr_t argument) {
  return command == F_SETLEASE ? setLease(file, argument)
                               : real<int(int, int, ...)>("fcntl")(file, command, argument);
}

}  // namespace

// The names of the headers are reserved.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
#define EXPORTED extern "C" __attribute__((visibility("default")))

EXPORTED int fcntl(int file, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  const int result = control(file, command, va_arg(arguments, std::uintptr_t));
  va_end(arguments);
  return result;
}

EXPORTED int fcntl64(int file, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  const int result = control(file, command, va_arg(arguments, std::uintptr_t));
  va_end(arguments);
  return result;
}

#if __SIZEOF_LONG__ == 4
// What programs with 64-bit times call on a 32-bit system.
EXPORTED int __fcntl_time64(int file, int command, ...) {  // NOLINT(bugprone-reserved-identifier)
  va_list arguments;
  va_start(arguments, command);
  const int result = control(file, command, va_arg(arguments, std::uintptr_t));
  va_end(arguments);
  return result;
}
#endif

EXPORTED int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const int result = openFile(path, flags, va_arg(arguments, mode_t));
  va_end(arguments);
  return result;
}

EXPORTED int open64(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const int result = openFile(path, flags, va_arg(arguments, mode_t));
  va_end(arguments);
  return result;
}

EXPORTED int inotify_add_watch(int events, const char* path, std::uint32_t mask) noexcept {
  if (races("post-before-watch")) {
    post();
  }
  return real<int(int, const char*, std::uint32_t)>("inotify_add_watch")(events, path, mask);
}

EXPORTED int access(const char* path, int mode) noexcept {
  if (std::strcmp(path, "/proc/1/stat") == 0 && races("open-while-looking")) {
    close(open(kLock, O_RDWR | O_CLOEXEC));
  }
  return real<int(const char*, int)>("access")(path, mode);
}

EXPORTED int clock_gettime(clockid_t clock, timespec* time) noexcept {
  const int result = real<int(clockid_t, timespec*)>("clock_gettime")(clock, time);
  static long calls = 0;
  if (races("hurry") && clock == CLOCK_MONOTONIC) {
    time->tv_sec += 5 * ++calls;
  }
  return result;
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
