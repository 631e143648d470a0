// SPDX-License-Identifier: Apache-2.0
#include <boost/crc.hpp>

#include "image-crc/polynomial.h"
#include "image-crc/ways.h"

std::uint32_t imagecrc::extendByBoost(std::uint32_t crc, const unsigned char* bytes, std::size_t size) {
  boost::crc_optimal<32, kPolynomial, 0, 0, false, false> sum(crc);
  sum.process_bytes(bytes, size);
  return sum.checksum();
}
