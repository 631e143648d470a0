// SPDX-License-Identifier: Apache-2.0
#include "module-log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <mutex>
#include <vector>

#include "dlog.h"
#include "library-messages.h"

namespace fwmodule {
namespace {

struct Errors {
  std::mutex mutex;
  std::vector<std::string> texts;  // guarded by mutex
};

// Never destroyed: a module may log while the process ends.
Errors& errors() {
  static auto* const kErrors = new Errors;
  return *kErrors;
}

void keepError(const char* format, va_list arguments) {
  char text[1024];
  if (std::vsnprintf(text, sizeof text, format, arguments) < 0) {
    return;
  }
  const std::lock_guard lock(errors().mutex);
  errors().texts.emplace_back(text);
}

}  // namespace

void forgetReasons() {
  const std::lock_guard lock(errors().mutex);
  errors().texts.clear();
}

bool toldReason(const std::string& library) {
  const std::string beginning = library + ": ";
  const std::lock_guard lock(errors().mutex);
  for (const std::string& text : errors().texts) {
    if (text.size() > beginning.size() && text.compare(0, beginning.size(), beginning) == 0) {
      return true;
    }
  }
  return false;
}

}  // namespace fwmodule

// Stands in front of the platform's function of this name.
int __dlog_print(int /*log_id*/, int priority, const char* tag, const char* format, ...) {
  const int error = errno;
  if (priority < DLOG_ERROR_PRIORITY || tag == nullptr || std::strcmp(tag, fwmessages::kTag) != 0 ||
      format == nullptr) {
    return 0;
  }
  va_list arguments;
  va_start(arguments, format);
  try {
    fwmodule::keepError(format, arguments);
  } catch (const std::exception&) {
    // A log call has nobody to throw at.
  }
  va_end(arguments);
  errno = error;
  return 0;
}
