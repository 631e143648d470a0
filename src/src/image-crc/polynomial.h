// SPDX-License-Identifier: Apache-2.0
// Arithmetic modulo the image checksum's polynomial, for tables and constants that
// are made at compile time. A value holds the coefficient of x^31 in its highest bit.
#ifndef IMAGE_CRC_POLYNOMIAL_H
#define IMAGE_CRC_POLYNOMIAL_H

#include <cstdint>

namespace imagecrc {

// This polynomial, not the common 0x04C11DB7, is deliberate. x^32 is implied.
constexpr std::uint32_t kPolynomial = 0x01B23CA3;

// value * x^exponent modulo the polynomial.
constexpr std::uint32_t timesPowerOfX(std::uint32_t value, unsigned int exponent) {
  for (; exponent > 0; --exponent) {
    const bool overflows = (value & 0x80000000U) != 0;
    value = (value << 1U) ^ (overflows ? kPolynomial : 0U);
  }
  return value;
}

}  // namespace imagecrc

#endif
