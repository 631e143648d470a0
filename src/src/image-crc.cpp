// SPDX-License-Identifier: Apache-2.0
#include "image-crc.h"

#include <algorithm>
#include <iterator>

#include "image-crc/ways.h"

const imagecrc::Way& imagecrc::fastestWay() {
  return *std::find_if(std::begin(kWays), std::end(kWays), [](const Way& way) { return way.isAvailable(); });
}

std::uint32_t extendImageCrc(std::uint32_t crc, const void* bytes, std::size_t size) {
  static const imagecrc::Way& way = imagecrc::fastestWay();
  return way.extend(crc, static_cast<const unsigned char*>(bytes), size);
}
