// SPDX-License-Identifier: Apache-2.0
#include "fault-injection.h"

#include <dlfcn.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/stat.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>

namespace faults {

std::function<void()> beforeSemWait;
std::function<void(int, int)> afterSemWait;
bool failThreads = false;
std::function<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)> onTimedWait;
std::atomic<bool> holdWaitUntilNotified{false};
double lastWaitSeconds = 0;
std::atomic<std::chrono::seconds> systemClockAhead{std::chrono::seconds(0)};
std::function<void(const char*)> afterLstat;

namespace {

std::atomic<bool> notified{false};

// The conditions that a timed wait was entered for. Each is notified once and waited
// for once; the entry goes when both are over.
struct Waiters {
  struct Entry {
    pthread_mutex_t* mutex;
    bool waitOver = false;
    bool notified = false;
  };

  std::mutex mutex;
  std::condition_variable changed;
  std::map<pthread_cond_t*, Entry> entries;
};

Waiters& waiters() {
  static auto& instance = *new Waiters;
  return instance;
}

void enter(pthread_cond_t* condition, pthread_mutex_t* mutex) {
  const std::lock_guard<std::mutex> lock(waiters().mutex);
  waiters().entries[condition] = {mutex};
  waiters().changed.notify_all();
}

void leave(pthread_cond_t* condition) {
  const std::lock_guard<std::mutex> lock(waiters().mutex);
  Waiters::Entry& entry = waiters().entries[condition];
  entry.waitOver = true;
  if (entry.notified) {
    waiters().entries.erase(condition);
  }
}

// The mutex of the condition's waiter, who holds it from before it is entered until
// it waits; null when the wait is over already.
pthread_mutex_t* awaitWaiter(pthread_cond_t* condition) {
  std::unique_lock<std::mutex> lock(waiters().mutex);
  waiters().changed.wait(lock, [condition] { return waiters().entries.count(condition) != 0; });
  Waiters::Entry& entry = waiters().entries[condition];
  entry.notified = true;
  if (!entry.waitOver) {
    return entry.mutex;
  }
  waiters().entries.erase(condition);
  return nullptr;
}

template <typename Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// Whether this code is the library's: only its own waits are of interest.
bool isLibrary(const void* code) {
  Dl_info info;
  return dladdr(code, &info) != 0 && std::strstr(info.dli_fname, "libfw-update-control.so") != nullptr;
}

}  // namespace

std::vector<std::string>& libraryCalls() {
  static auto& calls = *new std::vector<std::string>;
  return calls;
}

void reset() {
  beforeSemWait = nullptr;
  afterSemWait = nullptr;
  failThreads = false;
  onTimedWait = nullptr;
  holdWaitUntilNotified = false;
  notified = false;
  systemClockAhead = std::chrono::seconds(0);
  afterLstat = nullptr;
  libraryCalls().clear();
}

}  // namespace faults

#define TAKES_PLACE extern "C" __attribute__((visibility("default")))

TAKES_PLACE int sem_wait(sem_t* semaphore) {
  static auto* const kReal = faults::real<int(sem_t*)>("sem_wait");
  if (faults::beforeSemWait) {
    faults::beforeSemWait();
  }
  const int result = kReal(semaphore);
  const int error = errno;
  if (faults::afterSemWait) {
    faults::afterSemWait(result, error);
  }
  errno = error;
  return result;
}

TAKES_PLACE int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                               void* argument) noexcept {
  static auto* const kReal =
      faults::real<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>("pthread_create");
  return faults::failThreads ? EAGAIN : kReal(thread, attributes, start, argument);
}

// std::condition_variable::notify_one, which the C++ library defines.
TAKES_PLACE void notifyOne(pthread_cond_t* condition) __asm__("_ZNSt18condition_variable10notify_oneEv");

void notifyOne(pthread_cond_t* condition) {
  static auto* const kReal = faults::real<void(pthread_cond_t*)>("_ZNSt18condition_variable10notify_oneEv");
  if (!faults::isLibrary(__builtin_return_address(0))) {
    kReal(condition);
    return;
  }
  if (faults::holdWaitUntilNotified) {
    kReal(condition);
    faults::notified = true;
    return;
  }
  pthread_mutex_t* const mutex = faults::awaitWaiter(condition);
  if (mutex == nullptr) {
    kReal(condition);
    return;
  }
  pthread_mutex_lock(mutex);
  kReal(condition);
  pthread_mutex_unlock(mutex);
}

// std::chrono::system_clock::now, which the C++ library defines.
TAKES_PLACE std::chrono::system_clock::time_point systemNow() noexcept
    __asm__("_ZNSt6chrono3_V212system_clock3nowEv");

std::chrono::system_clock::time_point systemNow() noexcept {
  static auto* const kReal =
      faults::real<std::chrono::system_clock::time_point()>("_ZNSt6chrono3_V212system_clock3nowEv");
  return kReal() + faults::systemClockAhead.load();
}

// The 32-bit build waits with 64-bit times, under another name.
#if defined(__i386__)
#define TIMED_WAIT_NAME "__pthread_cond_timedwait64"
#else
#define TIMED_WAIT_NAME "pthread_cond_timedwait"
#endif

TAKES_PLACE int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                       const timespec* deadline) {
  static auto* const kReal =
      faults::real<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)>(TIMED_WAIT_NAME);
  if (!faults::isLibrary(__builtin_return_address(0))) {
    return kReal(condition, mutex, deadline);
  }
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  faults::lastWaitSeconds = static_cast<double>(deadline->tv_sec - now.tv_sec) +
                            static_cast<double>(deadline->tv_nsec - now.tv_nsec) / 1e9;
  faults::enter(condition, mutex);
  while (faults::holdWaitUntilNotified && !faults::notified) {
    sched_yield();
  }
  const int result = faults::onTimedWait ? faults::onTimedWait(condition, mutex, deadline)
                                         : kReal(condition, mutex, deadline);
  faults::leave(condition);
  return result;
}

// With 64-bit file offsets, and in the 32-bit build with 64-bit times too.
#if defined(__i386__)
#define LSTAT_NAME "__lstat64_time64"
#else
#define LSTAT_NAME "lstat64"
#endif

TAKES_PLACE int lstat(const char* path, struct stat* status) noexcept {
  static auto* const kReal = faults::real<int(const char*, struct stat*)>(LSTAT_NAME);
  const int result = kReal(path, status);
  const int error = errno;
  if (faults::afterLstat) {
    faults::afterLstat(path);
  }
  errno = error;
  return result;
}

namespace {

std::mutex libraryMutex;

std::map<void*, std::string>& openLibraries() {
  static auto& libraries = *new std::map<void*, std::string>;
  return libraries;
}

}  // namespace

TAKES_PLACE void* dlopen(const char* path, int flags) noexcept {
  static auto* const kReal = faults::real<void*(const char*, int)>("dlopen");
  const std::string name = path == nullptr ? "" : path;
  {
    const std::lock_guard<std::mutex> lock(libraryMutex);
    faults::libraryCalls().push_back("dlopen(" + name + ")");
  }
  void* const library = kReal(path, flags);
  if (library != nullptr) {
    const std::lock_guard<std::mutex> lock(libraryMutex);
    openLibraries()[library] = name;
  }
  return library;
}

TAKES_PLACE int dlclose(void* library) noexcept {
  static auto* const kReal = faults::real<int(void*)>("dlclose");
  {
    const std::lock_guard<std::mutex> lock(libraryMutex);
    faults::libraryCalls().push_back("dlclose(" + openLibraries()[library] + ")");
  }
  return kReal(library);
}
