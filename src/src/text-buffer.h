// SPDX-License-Identifier: Apache-2.0
// The 128-byte text buffers of the client interface and of the module contract.
#ifndef TEXT_BUFFER_H
#define TEXT_BUFFER_H

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>

constexpr std::size_t kTextSize = 128;

// Fills the whole field: at most 127 characters of text, zeros behind them. text
// itself needs a terminator only when it is shorter than that.
inline void copyBounded(char (&field)[kTextSize], const char* text) {
  std::memset(field, 0, sizeof(field));
  std::memcpy(field, text, strnlen(text, sizeof(field) - 1));
}

// A copy of exactly 127 bytes, padded with zeros: a text of 127 characters or
// more arrives without a terminator.
inline void copyFixed(char* out, const std::string& text) {
  constexpr std::size_t kCopySize = kTextSize - 1;
  const std::size_t length = std::min(text.size(), kCopySize);
  std::memcpy(out, text.data(), length);
  std::memset(out + length, 0, kCopySize - length);
}

// Cuts a text that a module wrote without a terminator.
inline void terminate(char* text) {
  if (std::memchr(text, '\0', kTextSize) == nullptr) {
    text[kTextSize - 1] = '\0';
  }
}

#endif
