// SPDX-License-Identifier: Apache-2.0
// The description that stands beside a firmware image, "info.json", and the checksum that
// it states. Plain values and functions; any thread.
#ifndef FW_IMAGE_IMAGE_INFORMATION_H
#define FW_IMAGE_IMAGE_INFORMATION_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace image {

// Of the bytes that are added, piece by piece: CRC-32 with polynomial 0x01B23CA3, initial
// value 0, nothing reflected, no final XOR.
class Crc {
 public:
  void add(const void* bytes, std::size_t size);
  std::uint32_t value() const { return value_; }

 private:
  std::uint32_t value_ = 0;
};

std::uint32_t crcOf(const std::string& bytes);

struct Information {
  std::string version;
  std::uint32_t crc = 0;
  std::uint32_t expectedTime = 0;  // seconds
  std::string updateClass = {};    // "security" or "feature"; empty: it is not stated
};

std::string toText(const Information& information);

// Nothing when the text is no description as the library reads it.
std::optional<Information> parseInformation(const std::string& text);

}  // namespace image

#endif
