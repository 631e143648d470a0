// SPDX-License-Identifier: Apache-2.0
#include "privileged/privileged-protocol.h"

#include <cstdint>

namespace fwplatform {
namespace {

// The last byte is the version of the format.
constexpr std::string_view kMark = "FWPS\x01";
// In an answer, at the place of the operation.
constexpr char kAnswer = '\0';

void appendNumber(std::string& bytes, int number) {
  const auto value = static_cast<std::uint32_t>(number);
  for (unsigned shift = 0; shift < 32; shift += 8) {
    bytes += static_cast<char>((value >> shift) & 0xFF);
  }
}

int numberAt(std::string_view bytes, std::size_t offset) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    value |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[offset + i])) << (8 * i);
  }
  return static_cast<int>(value);
}

bool hasMark(std::string_view bytes) {
  return bytes.substr(0, kMark.size()) == kMark;
}

}  // namespace

std::string encodePrivilegedMessage(PrivilegedOperation operation, std::string_view text) {
  std::string bytes(kMark);
  bytes += static_cast<char>(operation);
  bytes += text;
  return bytes;
}

std::optional<PrivilegedMessage> decodePrivilegedMessage(std::string_view bytes) {
  if (bytes.size() < kPrivilegedHeaderSize || bytes.size() > kPrivilegedMessageCapacity || !hasMark(bytes)) {
    return std::nullopt;
  }
  return PrivilegedMessage{static_cast<PrivilegedOperation>(bytes[kMark.size()]),
                           bytes.substr(kPrivilegedHeaderSize)};
}

std::string encodePrivilegedAnswer(const PrivilegedAnswer& answer) {
  std::string bytes(kMark);
  bytes += kAnswer;
  appendNumber(bytes, answer.status);
  appendNumber(bytes, answer.result);
  return bytes;
}

std::optional<PrivilegedAnswer> decodePrivilegedAnswer(std::string_view bytes) {
  if (bytes.size() != kPrivilegedAnswerSize || !hasMark(bytes) || bytes[kMark.size()] != kAnswer) {
    return std::nullopt;
  }
  return PrivilegedAnswer{numberAt(bytes, kPrivilegedHeaderSize), numberAt(bytes, kPrivilegedHeaderSize + 4)};
}

}  // namespace fwplatform
