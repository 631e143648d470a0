// SPDX-License-Identifier: Apache-2.0
#include "sparse-image.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace {

constexpr std::uint32_t kPolynomial = 0x01B23CA3;

// The product of two remainders, bit by bit.
std::uint32_t multiply(std::uint32_t one, std::uint32_t other) {
  std::uint32_t product = 0;
  for (int bit = 31; bit >= 0; --bit) {
    product = (product << 1U) ^ ((product & 0x80000000U) != 0 ? kPolynomial : 0U);
    product ^= (one >> static_cast<unsigned int>(bit) & 1U) != 0 ? other : 0U;
  }
  return product;
}

// What a checksum becomes when so many zeros follow.
std::uint32_t followedByZeros(std::uint32_t crc, std::uint64_t bytes) {
  std::uint32_t power = 0x100;  // x to the 8th: one byte
  for (; bytes > 0; bytes >>= 1U) {
    if ((bytes & 1U) != 0) {
      crc = multiply(crc, power);
    }
    power = multiply(power, power);
  }
  return crc;
}

std::uint32_t crcOf(const std::string& text) {
  std::uint32_t crc = 0;
  for (const char byte : text) {
    crc = multiply(crc, 0x100) ^ static_cast<unsigned char>(byte);
  }
  return multiply(multiply(crc, 0x10000), 0x10000);
}

}  // namespace

void SparseImage::write(const std::string& path) const {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  for (const auto& mark : marks) {
    file.seekp(static_cast<std::streamoff>(mark.offset));
    file << mark.text;
  }
  file.close();
  if (!file) {
    throw std::runtime_error("cannot write " + path);
  }
  std::filesystem::resize_file(path, size);
}

// Nothing goes into this checksum but the bytes: that of the whole is the sum of those
// of each mark alone.
std::uint32_t SparseImage::crc() const {
  std::uint32_t sum = 0;
  for (const auto& mark : marks) {
    sum ^= followedByZeros(crcOf(mark.text), size - mark.offset - mark.text.size());
  }
  return sum;
}

SparseImage markedImage(std::uint64_t size) {
  SparseImage image{size, {{0, "start"}}};
  for (std::uint64_t across = kGibibyte; across < size; across += kGibibyte) {
    image.marks.push_back({across - 3, "edge" + std::to_string(across)});
  }
  const std::string end = "end";
  if (image.marks.back().offset + image.marks.back().text.size() <= size - end.size()) {
    image.marks.push_back({size - end.size(), end});
  }
  return image;
}
