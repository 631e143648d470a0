// SPDX-License-Identifier: Apache-2.0
// How often a test repeats what only grows surer by more of the same. Under a sanitizer
// every run takes many times as long and looks at the same code; a part of them will do.
#ifndef TESTS_SUPPORT_THOROUGHNESS_H
#define TESTS_SUPPORT_THOROUGHNESS_H

namespace thoroughness {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kEveryNth = 8;
constexpr bool kUnderASanitizer = true;
#else
constexpr int kEveryNth = 1;
constexpr bool kUnderASanitizer = false;
#endif

}  // namespace thoroughness

#endif
