// SPDX-License-Identifier: Apache-2.0
// Images of gigabytes that take no room: zeros, with a few marks in between. Their
// checksum is computed, without reading them, in a way that shares nothing with the
// project's own.
#ifndef TESTS_INTEGRATION_LARGE_IMAGES_SPARSE_IMAGE_H
#define TESTS_INTEGRATION_LARGE_IMAGES_SPARSE_IMAGE_H

#include <cstdint>
#include <string>
#include <vector>

struct Mark {
  std::uint64_t offset;
  std::string text;
};

struct SparseImage {
  std::uint64_t size;
  std::vector<Mark> marks;  // apart from each other

  void write(const std::string& path) const;
  // As "info.json" states it.
  std::uint32_t crc() const;
};

inline constexpr std::uint64_t kGibibyte = std::uint64_t{1} << 30U;

// With marks at its start, at its end, and across every gibibyte.
SparseImage markedImage(std::uint64_t size);

#endif
