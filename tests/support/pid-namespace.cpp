// SPDX-License-Identifier: Apache-2.0
// In a program that tests start: the PID namespace that the tests run in is the first one,
// whose processes are all there are. It often is another one, in a container for example.
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>

namespace {

constexpr const char* kFirstNamespace = "pid:[4026531836]";

// TESTS_PID_NAMESPACE is what its link says.
bool isOfTests(const std::string& target) {
  const char* const known = std::getenv("TESTS_PID_NAMESPACE");
  return known != nullptr && target == known;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) ssize_t readlink(const char* path, char* target,
                                                                   std::size_t size) noexcept {
  static auto* const kReal =
      reinterpret_cast<ssize_t (*)(const char*, char*, std::size_t)>(dlsym(RTLD_NEXT, "readlink"));
  const ssize_t length = kReal(path, target, size);
  if (length < 0 || !isOfTests(std::string(target, static_cast<std::size_t>(length)))) {
    return length;
  }
  const std::string first = kFirstNamespace;
  return static_cast<ssize_t>(first.copy(target, size));
}
