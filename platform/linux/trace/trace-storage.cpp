// SPDX-License-Identifier: Apache-2.0
#include "trace-storage.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "dlog.h"
#include "system-error.h"
#include "trace/trace-file.h"
#include "trace/trace-ring.h"
#include "trace/trace-settings.h"

namespace TraceStorage {

// Until the first message shows that no trace can be kept.
std::uint8_t enabled = 1;

namespace {

using fwplatform::trace::Settings;
using fwplatform::trace::TraceFile;

enum class State { NotTried, Open, Unusable };

// Held around everything but the writing of records. Constant-initialised, and
// never destroyed under a thread that still logs.
std::mutex mutex;
State state = State::NotTried;
TraceFile* file = nullptr;        // never destroyed: the last destructors log too
TraceFile* parentFile = nullptr;  // in a forked child until it has one of its own
pthread_key_t threadEndKey;
std::atomic<std::uint32_t> lastLocationId{0};
// Changes when a ring becomes free: a thread without one then asks again.
std::atomic<std::uint32_t> ringsReturned{0};

struct ThisThread {
  Thread* ring;
  bool refused;
  std::uint32_t refusedAt;
};
// Plain data of a library that is always loaded at start-up: no call is needed to
// reach it.
thread_local ThisThread thisThread __attribute__((tls_model("initial-exec"))) = {};

void onThreadEnd(void* ring) {
  const std::lock_guard<std::mutex> lock(mutex);
  // Not in a forked child, whose rings are its parent's.
  if (file != nullptr && ring == thisThread.ring) {
    file->takeBack(thisThread.ring);
    ringsReturned.fetch_add(1, std::memory_order_relaxed);
  }
  thisThread = {};
}

void beforeFork() {
  mutex.lock();
}

void afterForkInParent() {
  mutex.unlock();
}

// The child shares the parent's mapping and must not write there. It gets a file
// of its own when it has something to say.
void afterForkInChild() {
  if (state == State::Open) {
    file->closeDescriptor();
    parentFile = file;
    file = nullptr;
    state = State::NotTried;
  }
  thisThread = {};
  mutex.unlock();
}

bool registerHandlers() {
  static const bool kDone = pthread_key_create(&threadEndKey, onThreadEnd) == 0 &&
                            pthread_atfork(beforeFork, afterForkInParent, afterForkInChild) == 0;
  return kDone;
}

void sayUnusable(const std::string& directory, int error) {
  __dlog_print(2, DLOG_WARN_PRIORITY, "FWUPDATE", "no trace is kept: %s: %s", directory.c_str(),
               std::strerror(error));
}

// With the mutex held. Why there is no file goes to directory and error, to be told later.
void open(std::string& directory, int& error) {
  if (state != State::NotTried) {
    return;
  }
  state = State::Unusable;
  error = ENOMEM;
  const Settings settings = fwplatform::trace::settingsFromEnvironment();
  directory = settings.directory;
  std::unique_ptr<TraceFile> opened;
  if (!directory.empty() && registerHandlers()) {
    opened = TraceFile::create(settings, error);
  }
  if (!opened) {
    __atomic_store_n(&enabled, std::uint8_t{0}, __ATOMIC_RELAXED);
    return;
  }
  if (parentFile != nullptr) {
    opened->copyLocations(*parentFile);
    delete std::exchange(parentFile, nullptr);
  }
  file = opened.release();
  state = State::Open;
}

// Runs action with the process's file; not at all when there is none.
template <typename Action>
void withFile(Action action) {
  const base::KeepErrno keepErrno;
  std::string directory;
  int error = 0;
  try {
    const std::lock_guard<std::mutex> lock(mutex);
    open(directory, error);
    if (file != nullptr) {
      action(*file);
      return;
    }
  } catch (const std::exception&) {
    // Memory is all that can be missing; the message then has no trace.
  }
  if (error != 0 && !directory.empty()) {
    sayUnusable(directory, error);
  }
}

Thread* attach() {
  const std::uint32_t returned = ringsReturned.load(std::memory_order_relaxed);
  if (thisThread.refused && thisThread.refusedAt == returned) {
    return nullptr;
  }
  withFile([](TraceFile& open) {
    thisThread.ring = open.lend();
    // The key is what makes the ring come back when the thread ends.
    if (thisThread.ring != nullptr && pthread_setspecific(threadEndKey, thisThread.ring) != 0) {
      open.takeBack(thisThread.ring);
      thisThread.ring = nullptr;
    }
  });
  thisThread.refused = thisThread.ring == nullptr;
  thisThread.refusedAt = returned;
  return thisThread.ring;
}

void countDropped() {
  const std::lock_guard<std::mutex> lock(mutex);
  if (file != nullptr) {
    file->countDropped();
  }
}

}  // namespace

void Storage::SaveLocation(const CallLocation& location) {
  withFile([&location](TraceFile& open) { open.saveLocation(location); });
}

Thread* Storage::ThreadHandle() {
  Thread* const ring = thisThread.ring;
  return __builtin_expect(ring != nullptr, 1) ? ring : attach();
}

unsigned char* Storage::PrepareCallBuffer(Thread* thread, unsigned int size, unsigned char kind,
                                          std::uint32_t locationId) {
  if (thread == nullptr) {
    countDropped();
    return nullptr;
  }
  return thread->prepare(size, kind, locationId);
}

void Storage::Commit(Thread* thread) {
  if (thread != nullptr) {
    thread->commit();
  }
}

Manager& Manager::Instance() {
  static Manager manager;
  return manager;
}

std::uint32_t Manager::NewLocationId() {
  return lastLocationId.fetch_add(1, std::memory_order_relaxed) + 1;
}

Storage& Manager::GetStorage() {
  static Storage storage;
  return storage;
}

}  // namespace TraceStorage
