#include "privileged/privileged-protocol.h"

#include <cstdint>

namespace fwplatform {
namespace {

// The last byte is the version of the format.
constexpr std::string_view kMark = "FWPS\x01";
// In an answer, at the place of the operation.
constexpr char kAnswer = '\0';

void AppendNumber(std::string& bytes, int number) {
  const auto value = static_cast<std::uint32_t>(number);
  for (unsigned shift = 0; shift < 32; shift += 8) {
    bytes += static_cast<char>((value >> shift) & 0xFF);
  }
}

int NumberAt(std::string_view bytes, std::size_t offset) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    value |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[offset + i])) << (8 * i);
  }
  return static_cast<int>(value);
}

bool HasMark(std::string_view bytes) {
  return bytes.substr(0, kMark.size()) == kMark;
}

}  // namespace

std::string EncodePrivilegedMessage(PrivilegedOperation operation, std::string_view text) {
  std::string bytes(kMark);
  bytes += static_cast<char>(operation);
  bytes += text;
  return bytes;
}

std::optional<PrivilegedMessage> DecodePrivilegedMessage(std::string_view bytes) {
  if (bytes.size() < kPrivilegedHeaderSize || bytes.size() > kPrivilegedMessageCapacity || !HasMark(bytes)) {
    return std::nullopt;
  }
  return PrivilegedMessage{static_cast<PrivilegedOperation>(bytes[kMark.size()]),
                           bytes.substr(kPrivilegedHeaderSize)};
}

std::string EncodePrivilegedAnswer(const PrivilegedAnswer& answer) {
  std::string bytes(kMark);
  bytes += kAnswer;
  AppendNumber(bytes, answer.status);
  AppendNumber(bytes, answer.result);
  return bytes;
}

std::optional<PrivilegedAnswer> DecodePrivilegedAnswer(std::string_view bytes) {
  if (bytes.size() != kPrivilegedAnswerSize || !HasMark(bytes) || bytes[kMark.size()] != kAnswer) {
    return std::nullopt;
  }
  return PrivilegedAnswer{NumberAt(bytes, kPrivilegedHeaderSize), NumberAt(bytes, kPrivilegedHeaderSize + 4)};
}

}  // namespace fwplatform
