// SPDX-License-Identifier: Apache-2.0
// The PS_ calls as values, for the tests of the privileged operations.
#ifndef TESTS_INTEGRATION_PRIVILEGED_PRIVILEGED_CALLS_H
#define TESTS_INTEGRATION_PRIVILEGED_PRIVILEGED_CALLS_H

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ostream>
#include <string>

#include "privileged-service.h"

inline constexpr int kUntouched = 4711;

// What a PS_ call gives: its status and the result that it stored.
struct Answer {
  int status;
  int result;
};

inline bool operator==(const Answer& one, const Answer& other) {
  return one.status == other.status && one.result == other.result;
}

inline void PrintTo(const Answer& answer, std::ostream* out) {
  *out << "status " << answer.status << ", result " << answer.result;
}

inline const Answer kDone = {0, 0};
inline const Answer kRefused = {-EPERM, kUntouched};

inline Answer failedWith(int error) {
  return {0, error};
}

inline Answer call(int (*operation)(const char*, int, int, int*), const std::string& text) {
  char buffer[1024] = {};
  std::memcpy(buffer, text.data(), std::min(text.size(), sizeof buffer - 1));
  Answer answer = {kUntouched, kUntouched};
  answer.status = operation(buffer, sizeof buffer, 0, &answer.result);
  return answer;
}

inline Answer askMount(const std::string& text) {
  return call(PS_Mount, text);
}

inline Answer askMknod(const std::string& text) {
  return call(PS_Mknod, text);
}

inline Answer askUmount(const std::string& path) {
  Answer answer = {kUntouched, kUntouched};
  answer.status = PS_Umount(path.data(), static_cast<int>(path.size()), 0, &answer.result);
  return answer;
}

#endif
