// SPDX-License-Identifier: Apache-2.0
// The bytes of docs/formats/component-flash.md.
#include <gtest/gtest.h>

#include <boost/crc.hpp>
#include <cerrno>
#include <system_error>

#include "flash-file.h"

namespace {

using fwcomponent::decodeHeader;
using fwcomponent::encodeHeader;
using fwcomponent::FlashHeader;
using fwcomponent::FlashHeaderBytes;

// Version "1.10.2", 0x0123456789 bytes of content with the CRC 0x6A50465C. The
// header CRC was computed bit by bit, apart from this project's code.
FlashHeaderBytes goldenHeader() {
  FlashHeaderBytes bytes{};
  const unsigned char start[] = {'F',  'W', 'F',  'L',  'A',  'S',  'H',  0,    1,    0,
                                 0,    0,   0x5c, 0x46, 0x50, 0x6a, 0x89, 0x67, 0x45, 0x23,
                                 0x01, 0,   0,    0,    '1',  '.',  '1',  '0',  '.',  '2'};
  const unsigned char end[] = {0x71, 0x0c, 0xef, 0x97};
  std::copy(std::begin(start), std::end(start), bytes.begin());
  std::copy(std::begin(end), std::end(end), bytes.end() - 4);
  return bytes;
}

int decodeError(const FlashHeaderBytes& bytes) {
  try {
    decodeHeader(bytes);
    return 0;
  } catch (const std::system_error& error) {
    return error.code().value();
  }
}

// Makes a changed header consistent again.
FlashHeaderBytes withCrc(FlashHeaderBytes bytes) {
  boost::crc_optimal<32, 0x01B23CA3, 0, 0, false, false> crc;
  crc.process_bytes(bytes.data(), bytes.size() - 4);
  for (std::size_t i = 0; i < 4; ++i) {
    bytes[bytes.size() - 4 + i] = static_cast<unsigned char>(crc.checksum() >> (8 * i));
  }
  return bytes;
}

TEST(FlashHeader, IsWrittenAsDocumented) {
  EXPECT_EQ(encodeHeader({"1.10.2", 0x0123456789, 0x6A50465C}), goldenHeader());
}

TEST(FlashHeader, IsReadAsDocumented) {
  const FlashHeader header = decodeHeader(goldenHeader());

  EXPECT_EQ(header.version, "1.10.2");
  EXPECT_EQ(header.size, 0x0123456789u);
  EXPECT_EQ(header.crc, 0x6A50465Cu);
}

TEST(FlashHeader, IsCorruptWhenAnyOfItsBitsIsWrong) {
  for (std::size_t bit = 0; bit < fwcomponent::kFlashHeaderSize * 8; ++bit) {
    FlashHeaderBytes bytes = goldenHeader();
    bytes[bit / 8] = static_cast<unsigned char>(bytes[bit / 8] ^ (1u << bit % 8));

    EXPECT_EQ(decodeError(bytes), EBADMSG) << "bit " << bit;
  }
}

TEST(FlashHeader, IsCorruptWithAnotherFormat) {
  FlashHeaderBytes bytes = goldenHeader();
  bytes[8] = 2;

  EXPECT_EQ(decodeError(withCrc(bytes)), EBADMSG);
}

TEST(FlashHeader, IsCorruptWithoutAVersion) {
  FlashHeaderBytes empty = goldenHeader();
  std::fill(empty.begin() + 24, empty.begin() + 152, static_cast<unsigned char>(0));
  FlashHeaderBytes unterminated = goldenHeader();
  std::fill(unterminated.begin() + 24, unterminated.begin() + 152, static_cast<unsigned char>('1'));
  FlashHeaderBytes nonsense = goldenHeader();
  nonsense[24] = 'x';

  EXPECT_EQ(decodeError(withCrc(empty)), EBADMSG);
  EXPECT_EQ(decodeError(withCrc(unterminated)), EBADMSG);
  EXPECT_EQ(decodeError(withCrc(nonsense)), EBADMSG);
}

TEST(FlashHeader, HoldsVersionsOfUpTo127Characters) {
  const std::string longest(127, '9');

  EXPECT_EQ(decodeHeader(encodeHeader({longest, 1, 2})).version, longest);
  EXPECT_THROW(encodeHeader({longest + "9", 1, 2}), std::system_error);
}

}  // namespace
