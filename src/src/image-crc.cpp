#include "image-crc.h"

#include <boost/crc.hpp>

std::uint32_t extendImageCrc(std::uint32_t crc, const void* bytes, std::size_t size) {
  // This polynomial, not the common 0x04C11DB7, is deliberate. Boost builds the
  // table once, on first use.
  boost::crc_optimal<32, 0x01B23CA3, 0, 0, false, false> sum(crc);
  sum.process_bytes(bytes, size);
  return sum.checksum();
}
