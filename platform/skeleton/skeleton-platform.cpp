// SPDX-License-Identifier: Apache-2.0
// A platform to begin with: every function that the update library calls, and nothing behind
// them but a log, the software version and a refusal. It links with nothing of this project;
// docs/porting.md has the line. fw-platform-check --library ./libfw-platform.so.1 says what is
// left to do.
#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app-binary-manager.h"
#include "device-power.h"
#include "dlog.h"
#include "lwipc.h"
#include "privileged-service.h"
#include "system-info.h"
#include "trace-storage.h"

namespace {

constexpr char kSoftwareVersion[] = "SKELETON-1.0";  // the set's own: model, "-", version

int levelOf(int priority) {
  switch (priority) {
    case DLOG_INFO_PRIORITY:
      return LOG_INFO;
    case DLOG_WARN_PRIORITY:
      return LOG_WARNING;
    case DLOG_ERROR_PRIORITY:
      return LOG_ERR;
    default:
      return priority < DLOG_INFO_PRIORITY ? LOG_DEBUG : LOG_CRIT;
  }
}

}  // namespace

// ---- Log: errno stays as it was, and %m is its text ---------------------------------------

int __dlog_print(int /*log_id*/, int priority, const char* tag, const char* format, ...) {
  if (format == nullptr) {
    return 0;
  }
  const int error = errno;
  char* message = nullptr;
  va_list arguments;
  va_start(arguments, format);
  const int length = vasprintf(&message, format, arguments);
  va_end(arguments);
  if (length >= 0) {
    syslog(levelOf(priority), "%s: %s", tag == nullptr ? "(null)" : tag, message);
    std::free(message);
  }
  errno = error;
  return length >= 0 ? length : -ENOMEM;
}

// ---- System information -------------------------------------------------------------------

int system_info_get_value_string(int key, char** value) {
  if (key != SYSTEM_INFO_SOFTWARE_VERSION || value == nullptr) {
    return -EINVAL;
  }
  char* const text = strdup(kSoftwareVersion);
  if (text == nullptr) {
    return -ENOMEM;
  }
  *value = text;
  return 0;
}

// ---- Power: nothing holds it, and the run over all modules goes on without ------------------

int device_power_lock_state(int /*state*/, int /*timeout_ms*/) {
  return -ENOSYS;
}

int device_power_unlock_state(int /*state*/) {
  return -ENOENT;
}

// ---- Events: nobody is told that a run over all modules begins ------------------------------

int LwipcEventDone(const char* /*event*/) {
  return -ENOSYS;
}

int LwipcEventWait(const char* /*event*/, int /*timeout_ms*/) {
  return -ENOSYS;
}

// ---- Privileged operations: updates from extension packages are refused --------------------

int PS_Mount(const char* /*arguments*/, int /*capacity*/, int /*reserved*/, int* /*result*/) {
  return -ENOSYS;
}

int PS_Mknod(const char* /*arguments*/, int /*capacity*/, int /*reserved*/, int* /*result*/) {
  return -ENOSYS;
}

int PS_Umount(const char* /*directory*/, int /*length*/, int /*reserved*/, int* /*result*/) {
  return -ENOSYS;
}

// ---- Downloads: every request is refused; ABM_GetDownloadProgress is left out ---------------

bool appbinaryManager::ABM_DownloadAppBinary(void (* /*callback*/)(const std::string&, int, void*),
                                             void* /*userData*/, const std::string& /*appId*/) {
  return false;
}

// ---- Traces: none, and the library does no work for them ----------------------------------

namespace TraceStorage {

std::uint8_t enabled = 0;

void Storage::SaveLocation(const CallLocation& /*location*/) {}

Thread* Storage::ThreadHandle() {
  return nullptr;
}

unsigned char* Storage::PrepareCallBuffer(Thread* /*thread*/, unsigned int /*size*/, unsigned char /*kind*/,
                                          std::uint32_t /*locationId*/) {
  return nullptr;
}

void Storage::Commit(Thread* /*thread*/) {}

Manager& Manager::Instance() {
  static Manager manager;
  return manager;
}

std::uint32_t Manager::NewLocationId() {
  static std::uint32_t last = 0;
  return __atomic_add_fetch(&last, 1, __ATOMIC_RELAXED);
}

Storage& Manager::GetStorage() {
  static Storage storage;
  return storage;
}

}  // namespace TraceStorage
