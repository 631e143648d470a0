// SPDX-License-Identifier: Apache-2.0
// Asks the verification library whether what was read of a package is what its signature
// covers, through entry points that the library need not have: without them everything
// passes. One thread.
#ifndef CONTENT_CHECK_H
#define CONTENT_CHECK_H

#include <cstddef>
#include <memory>
#include <string>

#include "package-verifier.h"

class ContentCheck {
 public:
  // Takes the entry points of the verification library, which must stay in memory. Any
  // thread; before the first check of the process.
  static void bind(void* library);

  // Of the package at path, which descriptor is open for.
  ContentCheck(const std::string& path, int descriptor);

  void add(const unsigned char* bytes, std::size_t size);

  // Asked once, after everything was added.
  bool passes();

  // Tells that the package was applied. False when that could not be noted.
  bool noteApplied() const;

 private:
  struct Release {
    void operator()(PackageContentCheck* done) const;
  };
  std::unique_ptr<PackageContentCheck, Release> check_;
};

#endif
