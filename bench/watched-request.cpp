// SPDX-License-Identifier: Apache-2.0
#include "watched-request.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>

#include <atomic>
#include <cstdarg>
#include <filesystem>
#include <string>

#include "device-namespace.h"
#include "firmware-image.h"
#include "fw-update-control.h"

namespace {

constexpr const char* kModule = "libempty";
constexpr const char* kFirmware = "benchfw";  // as the module says
constexpr std::size_t kImageSize = 16;
constexpr unsigned int kExpectedSeconds = 60;

std::array<std::chrono::steady_clock::time_point, bench::Moments> moments;

// The mutex of the thread that waits, or is about to: it holds it until it waits.
std::atomic<pthread_mutex_t*> waiterMutex{nullptr};

void note(bench::Moment moment) {
  moments[moment] = std::chrono::steady_clock::now();
}

void awaitCaller() {
  while (waiterMutex == nullptr) {
    sched_yield();
  }
  pthread_mutex_t* const mutex = waiterMutex.exchange(nullptr);
  pthread_mutex_lock(mutex);
  pthread_mutex_unlock(mutex);
}

template <typename Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

struct ThreadStart {
  void* (*function)(void*);
  void* argument;
} threadStart;

void* runThread(void*) {
  note(bench::ThreadRuns);
  return threadStart.function(threadStart.argument);
}

}  // namespace

std::function<void()> bench::onDoUpdate;

void bench::enterDeviceWithEmptyModule() {
  sandbox::enterDevice({"", {BUILD_TREE}});
  std::filesystem::copy_file(EMPTY_MODULE, std::string("/prd/usr/fwupdate/controls/") + kModule + ".so");
  sandbox::writeFirmware("/lib/firmware/ext", kFirmware, "2.0.0", kImageSize, kExpectedSeconds);
}

int bench::requestUpdate() {
  FWUpdateContorl* const control = FWUpdateContorl::getInstance();
  note(Called);
  const int result = control->fw_update_from_upgrade_app(kModule, "");
  note(Returned);
  return result;
}

const std::array<std::chrono::steady_clock::time_point, bench::Moments>& bench::lastRequest() {
  return moments;
}

#define TAKES_PLACE extern "C" __attribute__((visibility("default")))

// What the module's doUpdate answers.
TAKES_PLACE int benchDoUpdate() {
  note(bench::ModuleCalled);
  if (bench::onDoUpdate) {
    bench::onDoUpdate();
  }
  awaitCaller();
  note(bench::ModuleAnswers);
  return 0;
}

TAKES_PLACE sem_t* sem_open(const char* name, int flags, ...) {
  static auto* const kOpen = real<sem_t*(const char*, int, ...)>("sem_open");
  note(bench::LockAsked);
  va_list arguments;
  va_start(arguments, flags);
  const auto mode = va_arg(arguments, unsigned int);
  const auto value = va_arg(arguments, unsigned int);
  va_end(arguments);
  return kOpen(name, flags, mode, value);
}

TAKES_PLACE int sem_wait(sem_t* semaphore) {
  static auto* const kWait = real<int(sem_t*)>("sem_wait");
  const int result = kWait(semaphore);
  note(bench::LockHeld);
  return result;
}

TAKES_PLACE int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                               void* argument) noexcept {
  using Function = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static auto* const kCreate = real<Function>("pthread_create");
  note(bench::ThreadAsked);
  threadStart = {start, argument};
  return kCreate(thread, attributes, runThread, nullptr);
}

// The 32-bit build waits with 64-bit times, under another name.
#if defined(__i386__)
#define TIMED_WAIT_NAME "__pthread_cond_timedwait64"
#else
#define TIMED_WAIT_NAME "pthread_cond_timedwait"
#endif

TAKES_PLACE int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                       const timespec* deadline) {
  using Function = int(pthread_cond_t*, pthread_mutex_t*, const timespec*);
  static auto* const kWait = real<Function>(TIMED_WAIT_NAME);
  waiterMutex = mutex;
  return kWait(condition, mutex, deadline);
}
