// SPDX-License-Identifier: Apache-2.0
// A limit of this process for as long as this lives, as setrlimit knows it. The process
// has its own back before it ends, when it may have something to write.
#ifndef TESTS_SUPPORT_LIMITED_RESOURCE_H
#define TESTS_SUPPORT_LIMITED_RESOURCE_H

#include <sys/resource.h>

#include <cerrno>
#include <csignal>
#include <system_error>

class LimitedResource {
 public:
  // Bytes that a file may grow to; as on a full disk, a write beyond fails.
  static LimitedResource fileSize(rlim_t bytes) {
    std::signal(SIGXFSZ, SIG_IGN);
    return LimitedResource(RLIMIT_FSIZE, bytes);
  }
  // No file can be opened.
  static LimitedResource noDescriptors() { return descriptorsBelow(0); }
  // None with this number or a higher one.
  static LimitedResource descriptorsBelow(rlim_t number) { return LimitedResource(RLIMIT_NOFILE, number); }

  LimitedResource(const LimitedResource&) = delete;
  LimitedResource& operator=(const LimitedResource&) = delete;
  ~LimitedResource() { setrlimit(resource_, &before_); }

 private:
  LimitedResource(__rlimit_resource_t resource, rlim_t limit) : resource_(resource) {
    getrlimit(resource_, &before_);
    const rlimit limited = {limit, before_.rlim_max};
    if (setrlimit(resource_, &limited) != 0) {
      throw std::system_error(errno, std::generic_category(), "cannot limit this process");
    }
  }

  __rlimit_resource_t resource_;
  rlimit before_{};
};

#endif
