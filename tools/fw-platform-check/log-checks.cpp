// SPDX-License-Identifier: Apache-2.0
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "checks.h"
#include "dlog.h"

namespace conformance {
namespace {

constexpr int kLogId = 2;
constexpr const char* kTag = "FWUPDATE";

// 0 is also right: messages may be switched off.
Finding expectLength(int result, std::size_t length) {
  if (result == 0 || result == static_cast<int>(length)) {
    return kept();
  }
  return broken("the call returned " + std::to_string(result) + " for a message of " +
                std::to_string(length) + " bytes");
}

}  // namespace

Finding logKeepsErrno() {
  errno = EXDEV;
  __dlog_print(kLogId, DLOG_DEBUG_PRIORITY, kTag, "platform check: %d", 1);
  return errno == EXDEV ? kept() : broken("errno was changed to " + std::to_string(errno));
}

Finding logReturnsLength() {
  return expectLength(__dlog_print(kLogId, DLOG_DEBUG_PRIORITY, kTag, "platform check: %s", "text"),
                      std::strlen("platform check: text"));
}

Finding logFormatsErrorText() {
  const std::string expected = std::strerror(ENOTDIR);
  errno = ENOTDIR;
  return expectLength(__dlog_print(kLogId, DLOG_DEBUG_PRIORITY, kTag, "%m"), expected.size());
}

Finding logTakesNulls() {
  const char* volatile nothing = nullptr;  // not for the compiler to see
  __dlog_print(kLogId, DLOG_DEBUG_PRIORITY, nothing, "platform check");
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
  __dlog_print(kLogId, DLOG_DEBUG_PRIORITY, kTag, nothing);
#pragma GCC diagnostic pop
  return kept();
}

Finding logTakesLongMessages() {
  const std::string text(200000, 'x');
  return expectLength(__dlog_print(kLogId, DLOG_DEBUG_PRIORITY, kTag, "%s", text.c_str()), text.size());
}

Finding logTakesThreads() {
  constexpr int kThreadCount = 8;
  std::vector<std::thread> threads;
  threads.reserve(kThreadCount);
  for (int number = 0; number < kThreadCount; ++number) {
    threads.emplace_back([number] {
      for (int message = 0; message < 50; ++message) {
        __dlog_print(kLogId, DLOG_DEBUG_PRIORITY, kTag, "platform check: thread %d, message %d", number,
                     message);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  return kept();
}

}  // namespace conformance
