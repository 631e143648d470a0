// The update module @NAME@: what the update library calls.
#include <fw-update-module.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "component.h"

namespace {

constexpr int kTextSize = 128;  // of every text that the library gets or hands over
constexpr int kExpectedSeconds = 30;

std::mutex mutex;                // entry points are called from several threads
char checkedVersion[kTextSize];  // guarded by mutex

// Every entry point answers 0 or a negative errno value, which errno holds as well: the
// library logs both. No exception gets out.
template <typename Body>
int answer(Body body) noexcept {
  int result = -EIO;
  try {
    result = body();
  } catch (...) {
  }
  if (result != 0)
    errno = -result;
  return result;
}

bool isVersion(const std::string& text) {
  return !text.empty() && text.size() < kTextSize &&
         text.find_first_not_of("0123456789.") == std::string::npos && text.front() != '.';
}

}  // namespace

// Both texts are the caller's and go away: copy what you need later.
int setContext(const char* /*libName*/, CallerTypes /*caller*/, char* /*data*/) {
  return 0;
}

int getEMPID(char* out) {
  std::strcpy(out, "@IDENTIFIER@");
  return 0;
}

int getActiveVersion(char* out) {
  return answer([out] {
    std::string version;
    const int result = component::readVersion(version);
    std::snprintf(out, kTextSize, "%s", version.c_str());
    return result;
  });
}

// The version of the image that doUpdate gets next.
int checkVersion(const char* version, int* need) {
  return answer([version, need] {
    std::string active;
    if (!isVersion(version))
      return -EINVAL;
    if (const int result = component::readVersion(active); result != 0)
      return result;
    *need = ::strverscmp(version, active.c_str()) > 0 ? 1 : 0;
    const std::lock_guard<std::mutex> lock(mutex);
    std::strcpy(checkedVersion, version);
    return 0;
  });
}

int doUpdate(const char* path, unsigned long value) {
  return answer([path, value] {
    std::unique_lock<std::mutex> lock(mutex);
    const std::string version = checkedVersion;
    lock.unlock();  // the others are asked while the update runs
    return component::update(path, value, version);
  });
}

int getExpectedTime(int* seconds) {
  *seconds = kExpectedSeconds;
  return 0;
}

int getUpdateProgress(unsigned int* progress) {
  *progress = component::progress();
  return 0;
}
