// A platform library that breaks one promise: the one that FW_FAULT names.
#include <fcntl.h>
#include <unistd.h>

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

namespace {

bool fault(const char* name) {
  const char* const chosen = std::getenv("FW_FAULT");
  return chosen != nullptr && std::strcmp(chosen, name) == 0;
}

bool held = false;  // on purpose no count

}  // namespace

extern "C" int __dlog_print(int, int, const char* tag, const char* format, ...) {
  if (format == nullptr || tag == nullptr) {
    if (fault("log-null")) {
      std::abort();
    }
    return 0;
  }
  const int before = errno;
  static char text[300000];
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
    return -ENOTSUP;
  }
  *value = strdup(fault("system-no-dash") ? "television" : "television-1");
  return 0;
}

extern "C" int PS_Mount(const char*, int, int, int* result) {
  while (fault("mount-hangs")) {
    close(open("/tmp/hangs", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    pause();
  }
  *result = 0;
  return fault("mount-says-yes") ? 0 : -ENOSYS;
}

extern "C" int PS_Umount(const char*, int, int, int*) {
  return -ENOSYS;
}

extern "C" int PS_Mknod(const char*, int, int, int*) {
  return -ENOSYS;
}

extern "C" int device_power_lock_state(int, int) {
  held = true;
  return 0;
}

extern "C" int device_power_unlock_state(int) {
  if (!held && !fault("power-gives-more")) {
    return -ENOENT;
  }
  held = false;
  return 0;
}

extern "C" int LwipcEventDone(const char*) {
  return 0;
}

extern "C" int LwipcEventWait(const char*, int timeout) {
  if (fault("event-hangs") && timeout != 0) {
    pause();
  }
  return fault("event-always-done") ? 0 : -ETIMEDOUT;
}

bool appbinaryManager::ABM_DownloadAppBinary(void (*)(const std::string&, int, void*), void*,
                                             const std::string& appId) {
  if (fault("download-throws")) {
    throw 1;
  }
  return !appId.empty() && (fault("download-any-name") || appId.find('/') == std::string::npos) &&
         appId.find(' ') == std::string::npos;
}
