// SPDX-License-Identifier: Apache-2.0
// A platform library that breaks one promise: the one that FW_FAULT names. In the
// verifier's place it is a faulty verifier too.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "app-binary-manager.h"
#include "device-power.h"
#include "dlog.h"
#include "lwipc.h"
#include "privileged-service.h"
#include "system-info.h"
#include "trace-storage.h"

namespace {

bool fault(const char* name) {
  const char* const chosen = std::getenv("FW_FAULT");
  return chosen != nullptr && std::strcmp(chosen, name) == 0;
}

bool held = false;      // on purpose no count
pid_t signalledIn = 0;  // on purpose not for other processes

// What every call for mounts fails with; 0: they answer.
int mountError() {
  constexpr struct {
    const char* fault;
    int error;
  } kErrors[] = {
      {"service-is-missing", ENOENT}, {"service-refuses", ECONNREFUSED}, {"service-forbids", EPERM}};
  for (const auto& one : kErrors) {
    if (fault(one.fault)) {
      return one.error;
    }
  }
  return 0;
}

// The function of the platform that this one is loaded before.
template <typename Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// Tells of a program other than the one that checks it.
__attribute__((constructor)) void noteProgram() {
  if (std::strcmp(program_invocation_short_name, "fw-platform-check") != 0) {
    close(open("/tmp/loaded-elsewhere", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  }
}

// With the environment of this process.
void startProgram() {
  const pid_t child = fork();
  if (child == 0) {
    execl("/bin/touch", "touch", "/tmp/program-was-started", nullptr);
    _exit(127);
  }
  waitpid(child, nullptr, 0);
}

// Mounts as the other platform does, and takes a flag off.
int mountWithout(unsigned long flag, const char* arguments, int capacity, int* result) {
  const int status = real<decltype(PS_Mount)>("PS_Mount")(arguments, capacity, 0, result);
  const char* const directory = std::strrchr(arguments, ' ') + 1;
  mount(nullptr, directory, nullptr, MS_REMOUNT | MS_BIND | ((MS_RDONLY | MS_NODEV | MS_NOSUID) & ~flag),
        nullptr);
  return status;
}

}  // namespace

extern "C" int __dlog_print(int, int, const char* tag, const char* format, ...) {
  if (format == nullptr || tag == nullptr) {
    if (fault(format == nullptr ? "log-null-format" : "log-null-tag")) {
      std::abort();
    }
    return 0;
  }
  if (fault("log-threads") && getpid() != gettid()) {
    std::abort();
  }
  if (fault("log-exits")) {
    _exit(0);
  }
  if (fault("log-ends-by-signal")) {
    std::raise(SIGTERM);
  }
  if (fault("log-off")) {
    return 0;
  }
  const int before = errno;
  errno = fault("log-no-error-text") ? 0 : before;
  thread_local char text[300000];
  va_list arguments;
  va_start(arguments, format);
  const std::size_t size = fault("log-cuts") ? 1000 : sizeof(text);
  int length = std::vsnprintf(text, size, format, arguments);
  va_end(arguments);
  if (length >= static_cast<int>(size)) {
    length = static_cast<int>(size) - 1;
  }
  errno = fault("log-errno") ? EIO : before;
  return fault("log-length") ? length + 1 : length;
}

extern "C" int system_info_get_value_string(int key, char** value) {
  if (key != SYSTEM_INFO_SOFTWARE_VERSION && !fault("system-any-key")) {
    *value = fault("system-value-changed") ? nullptr : *value;
    return -ENOTSUP;
  }
  if (fault("system-unknown")) {
    return -ENOENT;
  }
  *value = strdup(fault("system-dash-first") ? "-1"
                  : fault("system-no-dash")  ? "television"
                                             : "television-1");
  return 0;
}

extern "C" int PS_Mount(const char* arguments, int capacity, int, int* result) {
  if (const int error = mountError(); error != 0) {
    return -error;
  }
  struct {
    const char* fault;
    unsigned long without;
  } constexpr kMounts[] = {
      {"mount-writable", MS_RDONLY}, {"mount-with-devices", MS_NODEV}, {"mount-with-set-user-id", MS_NOSUID},
      {"unmount-reads-on", 0},       {"unmount-says-yes", 0},          {"unmount-keeps-loop", 0}};
  for (const auto& one : kMounts) {
    if (fault(one.fault)) {
      return mountWithout(one.without, arguments, capacity, result);
    }
  }
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    if (fault(("mount-raises-" + std::to_string(signal)).c_str())) {
      raise(signal);
    }
  }
  while (fault("mount-hangs")) {
    close(open("/tmp/hangs", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    pause();
  }
  *result = 0;
  return fault("mount-says-yes") ? 0 : -ENOSYS;
}

extern "C" int PS_Umount(const char* directory, int length, int, int* result) {
  if (fault("unmount-says-yes")) {
    *result = 0;
    return 0;
  }
  if (fault("unmount-reads-on")) {
    *result = 0;
    return umount2(directory, 0) == 0 ? 0 : -errno;
  }
  if (fault("unmount-keeps-loop")) {
    open((std::string(directory, static_cast<std::size_t>(length)) + "/firmware.bin").c_str(), O_RDONLY);
    return umount2(std::string(directory, static_cast<std::size_t>(length)).c_str(), MNT_DETACH);
  }
  return -ENOSYS;
}

extern "C" int PS_Mknod(const char*, int, int, int* result) {
  if (const int error = mountError(); error != 0) {
    return -error;
  }
  *result = 0;
  return fault("node-says-yes") ? 0 : -ENOSYS;
}

extern "C" int device_power_lock_state(int, int) {
  if (fault("power-not-there")) {
    return -ENODEV;
  }
  held = true;
  return fault("power-odd-failure") ? 1 : 0;
}

extern "C" int device_power_unlock_state(int) {
  if (fault("power-keeps")) {
    return -EIO;
  }
  if (!held && !fault("power-gives-more")) {
    return -ENOENT;
  }
  held = false;
  return 0;
}

extern "C" int LwipcEventDone(const char*) {
  signalledIn = fault("event-only-here") ? getpid() : 0;
  return fault("event-cannot-be-done") ? -EIO : 0;
}

extern "C" int LwipcEventWait(const char*, int timeout) {
  if (fault("event-hangs") && timeout != 0) {
    pause();
  }
  return fault("event-always-done") || signalledIn == getpid() ? 0 : -ETIMEDOUT;
}

bool appbinaryManager::ABM_DownloadAppBinary(void (*)(const std::string&, int, void*), void*,
                                             const std::string& appId) {
  if (fault("download-throws")) {
    throw 1;
  }
  if (fault("download-throws-exception")) {
    throw std::runtime_error("odd");
  }
  if (fault("download-starts-program")) {
    startProgram();
  }
  if (fault("download-takes-unsigned") && appId == "unsignedempfw") {
    close(open("/opt/usr/apps/appbinarymanager/unsignedempfw.img", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  }
  return !appId.empty() && (fault("download-any-name") || appId.find('/') == std::string::npos) &&
         appId.find(' ') == std::string::npos;
}

#ifndef WITHOUT_DOWNLOAD_PROGRESS
appbinaryManager::DownloadProgress appbinaryManager::ABM_GetDownloadProgress(const std::string& appId) {
  DownloadProgress progress;
  if (fault("download-knows-all") || (fault("download-says-no-more") && appId == "platformcheckemp")) {
    progress.state = DownloadState::Failed;
  }
  if (fault("download-odd-state") && appId == "platformcheckemp") {
    progress.state = static_cast<DownloadState>(9);
  }
  if (fault("download-says-unsigned-is-there") && appId == "unsignedempfw") {
    progress.state = DownloadState::Done;
  }
  progress.total = fault("download-odd-size") ? -2 : -1;
  return progress;
}
#endif

// ---- Traces that are kept nowhere ----------------------------------------------------

namespace TraceStorage {

std::uint8_t enabled = 1;

namespace {

pid_t loadedIn = getpid();
unsigned char shared[4096];
thread_local unsigned char own[4096];

}  // namespace

void Storage::SaveLocation(const CallLocation&) {
  errno = fault("trace-errno") ? EIO : errno;
}

Thread* Storage::ThreadHandle() {
  const bool grandchild = getpid() != loadedIn && getppid() != loadedIn;  // each check has a child
  if (fault("trace-not-in-a-child") && grandchild) {
    std::abort();
  }
  return nullptr;
}

unsigned char* Storage::PrepareCallBuffer(Thread*, unsigned int, unsigned char, std::uint32_t) {
  if (fault("trace-drops")) {
    return nullptr;
  }
  return fault("trace-one-buffer") ? shared : own;
}

void Storage::Commit(Thread*) {}

Manager& Manager::Instance() {
  static Manager instance;
  return instance;
}

std::uint32_t Manager::NewLocationId() {
  static std::uint32_t last = 0;
  ++last;
  return fault("trace-number-0") ? last - 1 : fault("trace-numbers-twice") ? (last + 1) / 2 : last;
}

Storage& Manager::GetStorage() {
  static Storage storage;
  return storage;
}

}  // namespace TraceStorage

// ---- A verifier ------------------------------------------------------------------------

extern "C" __attribute__((visibility("default"))) int verifyFile(int, const char* path, const char*) {
  const bool isThere = access(path, F_OK) == 0;
  return (isThere && fault("verifier-takes-unsigned")) || (!isThere && fault("verifier-takes-missing")) ? 1
                                                                                                        : 0;
}
