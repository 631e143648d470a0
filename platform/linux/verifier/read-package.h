// SPDX-License-Identifier: Apache-2.0
// Judges a package by the bytes that were read of it, in the order of the file. Its
// trailer is read from the file at the beginning, to know how to judge the content, and
// has to come again at the end. In constant memory. One thread.
#ifndef FW_PLATFORM_READ_PACKAGE_H
#define FW_PLATFORM_READ_PACKAGE_H

#include <cstddef>
#include <cstdint>

#include "package-signature.h"

namespace fwpackage {

class ReadPackage {
 public:
  // file: a descriptor; where it stands is neither used nor changed. Throws as
  // PackageCheck does, and so do the others; then the package is to be refused.
  ReadPackage(int file, Trust trust, Expectation expected);
  ReadPackage(const ReadPackage&) = delete;
  ReadPackage& operator=(const ReadPackage&) = delete;

  // The next bytes.
  void add(const unsigned char* bytes, std::size_t size);

  // To be asked once.
  SignatureReport finish();

 private:
  bool isTrailer(const unsigned char* bytes, std::size_t size);

  const Trust trust_;
  PackageCheck check_;
  SignatureReport refusal_;  // for what the content's check cannot see
  TrailerBytes trailer_{};
  std::int64_t contentLeft_ = 0;
  std::size_t trailerSeen_ = 0;
};

}  // namespace fwpackage

#endif
