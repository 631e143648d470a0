// SPDX-License-Identifier: Apache-2.0
// Reading of an encrypted USB package: a 16-byte IV, the ciphertext, and a trailer of
// 534 bytes that only the verifier reads. The plaintext is a 64-byte version block
// and the image.
#ifndef USB_PACKAGE_H
#define USB_PACKAGE_H

#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

#include "content-check.h"
#include "file-handles.h"

constexpr int kVersionBlockSize = 64;

using PackageIv = std::array<unsigned char, 16>;
// Terminated whatever the package holds.
using VersionBlock = std::array<char, kVersionBlockSize + 1>;

// A package that is open for reading. What it delivers is also given to the verifier,
// which then judges these bytes instead of the file, and the file at the path is watched:
// between the verification and the end of the reading it has to stay as it is. One thread;
// not to be moved while its stream is in use.
class OpenPackage {
 public:
  // Opens it, but never waits for the other end of a FIFO. Not open when it cannot be.
  explicit OpenPackage(const std::string& path);
  OpenPackage(const OpenPackage&) = delete;
  OpenPackage& operator=(const OpenPackage&) = delete;

  bool isOpen() const { return stream_ != nullptr; }

  // Whether this file still stands at its path, as large and as old as when it was opened.
  bool isUnchanged() const;

  // From its first byte to the size that it had. Call it once, after the verification.
  FILE* read();

  // Whether the verifier takes what was read, and the file is unchanged. To be asked once.
  bool isWhatWasVerified();

  void close();

  // Tells the verifier that the package was applied. False when it could not note that.
  bool noteApplied() const { return check_->noteApplied(); }

 private:
  static ssize_t deliver(void* package, char* buffer, size_t size);

  std::string path_;
  FileDescriptor file_;
  struct stat opened_ = {};
  std::int64_t left_ = 0;  // bytes to be delivered
  std::optional<ContentCheck> check_;
  Stream stream_;
};

// Bytes of the file at path, 0 when it is gone.
std::int64_t packageSize(const std::string& path);

// False when the file is shorter than an IV.
bool readPackageIv(FILE* file, PackageIv& iv);

// Decrypts what follows the IV, up to the trailer of a span of count bytes. The buffer
// stays with cipher_buf_all. Null when the package, of size bytes, is too short or too
// long to be one, or memory is short.
const unsigned char* decryptPackage(FILE* file, const unsigned char* key, const PackageIv& iv,
                                    std::int64_t size, std::int64_t count, int& length);

// The first 64 bytes of the plaintext, padded with zeros when it is shorter.
VersionBlock versionBlock(const unsigned char* plaintext, int length);

#endif
