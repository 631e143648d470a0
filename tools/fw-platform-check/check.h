// SPDX-License-Identifier: Apache-2.0
// One promise that a platform must keep, and how it is found out.
#ifndef FW_PLATFORM_CHECK_CHECK_H
#define FW_PLATFORM_CHECK_CHECK_H

#include <string>

namespace conformance {

enum class Verdict { Kept, Broken, NotChecked };

struct Finding {
  Verdict verdict = Verdict::Kept;
  std::string sentence;  // what was seen instead, or why it was not checked
};

inline Finding kept() {
  return {};
}

inline Finding broken(std::string sentence) {
  return {Verdict::Broken, std::move(sentence)};
}

inline Finding notChecked(std::string sentence) {
  return {Verdict::NotChecked, std::move(sentence)};
}

// run is called in a process of its own, which may crash or hang.
struct Check {
  const char* area;
  const char* promise;
  Finding (*run)();
};

}  // namespace conformance

#endif
