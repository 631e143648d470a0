// SPDX-License-Identifier: Apache-2.0
// Packages as they lie on a USB drive, built with OpenSSL apart from the library,
// and what decrypting a piece of one must give. Bytes are kept in strings. Plain
// functions; safe for several threads.
#ifndef TESTS_SUPPORT_USB_PACKAGE_H
#define TESTS_SUPPORT_USB_PACKAGE_H

#include <cstddef>
#include <string>

namespace usb {

constexpr std::size_t kIvSize = 16;
constexpr std::size_t kVersionSize = 64;
constexpr std::size_t kTrailerSize = 534;
constexpr std::size_t kReadSize = 10240;

// The 32-byte key and the IV of the packages here.
const std::string& key();
const std::string& iv();
const unsigned char* bytesOf(const std::string& text);

// Bytes without a pattern, the same for the same seed.
std::string noise(std::size_t size, unsigned int seed = 1);

// AES-256-CBC with padding.
std::string encrypt(const std::string& plaintext);

// IV, encrypted version block and image, trailer. The trailer begins with "SIGNED".
std::string package(const std::string& version, const std::string& image);

// What decrypting ciphertext yields when a wrong padding is passed over: of whole
// blocks all but the padding, or but the last block when it is no padding; a
// beginning of a block yields nothing.
std::string decrypt(const std::string& ciphertext, const std::string& withKey = key(),
                    const std::string& withIv = iv());

}  // namespace usb

#endif
