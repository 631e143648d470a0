// Reading of an encrypted USB package: a 16-byte IV, the ciphertext, and a trailer of
// 534 bytes that only the verifier reads. The plaintext is a 64-byte version block
// and the image. Nothing here keeps state.
#ifndef USB_PACKAGE_H
#define USB_PACKAGE_H

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>

#include "file-handles.h"

constexpr int VersionBlockSize = 64;

using PackageIv = std::array<unsigned char, 16>;
// Terminated whatever the package holds.
using VersionBlock = std::array<char, VersionBlockSize + 1>;

// Opens a package for reading, but never waits for the other end of a FIFO. Null when
// it cannot be opened.
Stream openPackage(const std::string& path);

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
