// SPDX-License-Identifier: Apache-2.0
#include "privileged-service.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <exception>
#include <string_view>

#include "dlog.h"
#include "privileged/privileged-client.h"
#include "privileged/privileged-operations.h"
#include "system-error.h"

namespace {

using fwplatform::PrivilegedAnswer;
using fwplatform::PrivilegedOperation;

bool meansNoService(int status) {
  return status == -ENOENT || status == -ECONNREFUSED;
}

PrivilegedAnswer ask(PrivilegedOperation operation, std::string_view text) {
  PrivilegedAnswer answer;
  const int status =
      fwplatform::askPrivilegedService(operation, text, fwplatform::kPrivilegedPatienceMs, answer);
  if (status == 0) {
    return answer;
  }
  if (meansNoService(status) && geteuid() == 0) {
    return fwplatform::answerPrivilegedRequest(operation, text, {getpid(), geteuid(), getegid()},
                                               fwplatform::logRequest);
  }
  __dlog_print(2, DLOG_WARN_PRIORITY, "FWUPDATE", "privileged: no %s: the service at %s %s: %s",
               nameOf(operation), fwplatform::kPrivilegedSocketPath,
               meansNoService(status) ? "is not running" : "gave no answer",
               base::errnoText(-status).c_str());
  return {status, 0};
}

// *result is written only when the request was carried out.
int request(PrivilegedOperation operation, std::string_view text, int* result) {
  try {
    const PrivilegedAnswer answer = ask(operation, text);
    if (answer.status == 0) {
      *result = answer.result;
    }
    return answer.status;
  } catch (const std::exception&) {
    return -ENOMEM;
  }
}

// The text with its terminator. One without a terminator in its buffer stays
// without, for the service to refuse it; nothing is read past the buffer.
std::string_view terminatedText(const char* text, int capacity) {
  const std::size_t room = std::min(static_cast<std::size_t>(capacity), fwplatform::kPrivilegedTextCapacity);
  return {text, std::min(strnlen(text, room) + 1, room)};
}

bool isUsable(const char* text, int size, const int* result) {
  return text != nullptr && size > 0 && result != nullptr;
}

}  // namespace

int PS_Mount(const char* arguments, int capacity, int, int* result) {
  if (!isUsable(arguments, capacity, result)) {
    return -EINVAL;
  }
  return request(PrivilegedOperation::Mount, terminatedText(arguments, capacity), result);
}

int PS_Mknod(const char* arguments, int capacity, int, int* result) {
  if (!isUsable(arguments, capacity, result)) {
    return -EINVAL;
  }
  return request(PrivilegedOperation::Mknod, terminatedText(arguments, capacity), result);
}

int PS_Umount(const char* directory, int length, int, int* result) {
  if (!isUsable(directory, length, result)) {
    return -EINVAL;
  }
  if (static_cast<std::size_t>(length) > fwplatform::kPrivilegedTextCapacity) {
    return -ENAMETOOLONG;
  }
  return request(PrivilegedOperation::Umount, {directory, static_cast<std::size_t>(length)}, result);
}
