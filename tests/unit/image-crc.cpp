// SPDX-License-Identifier: Apache-2.0
// The ways to compute the image checksum, each held against Boost.CRC.
#include "image-crc.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <boost/crc.hpp>
#include <iterator>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "image-crc/ways.h"

namespace imagecrc {

// In the names of the tests.
void PrintTo(const Way& way, std::ostream* out) {
  *out << way.name;
}

}  // namespace imagecrc

namespace {

constexpr std::uint32_t kStarts[] = {0, 1, 0x80000000, 0xFFFFFFFF, 0x6A50465C, 0x01020304};

std::uint32_t boostCrc(std::uint32_t start, const unsigned char* bytes, std::size_t size) {
  boost::crc_optimal<32, 0x01B23CA3, 0, 0, false, false> sum(start);
  sum.process_bytes(bytes, size);
  return sum.checksum();
}

std::vector<unsigned char> noise(std::size_t size) {
  std::mt19937 random(20);
  std::vector<unsigned char> bytes(size);
  std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<unsigned char>(random()); });
  return bytes;
}

class ImageCrcWay : public ::testing::TestWithParam<imagecrc::Way> {
 protected:
  void SetUp() override {
    if (!GetParam().isAvailable()) {
      GTEST_SKIP() << "this processor cannot do it";
    }
  }

  static std::uint32_t extend(std::uint32_t start, const unsigned char* bytes, std::size_t size) {
    return GetParam().extend(start, bytes, size);
  }
};

INSTANTIATE_TEST_SUITE_P(Each, ImageCrcWay, ::testing::ValuesIn(imagecrc::kWays));

}  // namespace

TEST_P(ImageCrcWay, HasTheKnownCheckValue) {
  const std::string digits = "123456789";

  EXPECT_EQ(extend(0, reinterpret_cast<const unsigned char*>(digits.data()), digits.size()), 0x6A50465CU);
}

TEST_P(ImageCrcWay, HasTheKnownTableEntries) {
  const unsigned char one = 1;
  const unsigned char last = 255;

  EXPECT_EQ(extend(0, &one, 1), 0x01B23CA3U);
  EXPECT_EQ(extend(0, &last, 1), 0x917A7561U);
}

TEST_P(ImageCrcWay, KeepsTheCrcWhenNothingFollows) {
  EXPECT_EQ(extend(0x6A50465C, nullptr, 0), 0x6A50465CU);
}

TEST_P(ImageCrcWay, AgreesWithBoostOnEveryLengthTo5000FromEveryStart) {
  const std::vector<unsigned char> bytes = noise(5000);
  for (const std::uint32_t start : kStarts) {
    std::uint32_t expected = start;
    for (std::size_t size = 0; size <= bytes.size(); ++size) {
      ASSERT_EQ(extend(start, bytes.data(), size), expected) << size << " bytes from " << start;
      expected = size < bytes.size() ? boostCrc(expected, &bytes[size], 1) : expected;
    }
  }
}

TEST_P(ImageCrcWay, AgreesWithBoostAtEveryAddress) {
  const std::vector<unsigned char> bytes = noise(1200);
  for (std::size_t offset = 0; offset < 128; ++offset) {
    for (const std::size_t size : {0U, 15U, 16U, 63U, 64U, 255U, 256U, 257U, 512U, 1000U}) {
      ASSERT_EQ(extend(77, &bytes[offset], size), boostCrc(77, &bytes[offset], size))
          << size << " bytes at " << offset;
    }
  }
}

TEST_P(ImageCrcWay, AgreesWithBoostOnRandomLengthsToAMebibyteFromRandomStarts) {
  const std::vector<unsigned char> bytes = noise(1 << 20);
  std::mt19937 random(7);
  for (int round = 0; round < 20; ++round) {
    const std::size_t offset = random() % 64;
    const std::size_t size = random() % (bytes.size() - offset + 1);
    const auto start = static_cast<std::uint32_t>(random());

    ASSERT_EQ(extend(start, &bytes[offset], size), boostCrc(start, &bytes[offset], size))
        << size << " bytes at " << offset << " from " << start;
  }
}

TEST_P(ImageCrcWay, AgreesWithBoostInWhateverChunksTheBytesCome) {
  const std::vector<unsigned char> bytes = noise(1 << 20);
  const std::uint32_t expected = boostCrc(0, bytes.data(), bytes.size());
  std::mt19937 random(8);
  for (const std::size_t largest : {50U, 3000U, 40000U}) {
    std::uint32_t crc = 0;
    for (std::size_t done = 0; done < bytes.size();) {
      const std::size_t size = std::min<std::size_t>(random() % (largest + 1), bytes.size() - done);
      crc = extend(crc, bytes.data() + done, size);
      done += size;
    }
    EXPECT_EQ(crc, expected) << "chunks to " << largest;
  }
}

// A constant that is wrong in one bit shows when one bit of the message is set.
TEST_P(ImageCrcWay, AgreesWithBoostOnEveryBitOfAChunk) {
  std::vector<unsigned char> bytes(1024);
  for (std::size_t bit = 0; bit < 8 * bytes.size(); ++bit) {
    bytes[bit / 8] = static_cast<unsigned char>(1U << (bit % 8));
    ASSERT_EQ(extend(0, bytes.data(), bytes.size()), boostCrc(0, bytes.data(), bytes.size()))
        << "bit " << bit;
    bytes[bit / 8] = 0;
  }
}

TEST(ImageCrc, IsThatOfBoost) {
  const std::vector<unsigned char> bytes = noise(100000);

  EXPECT_EQ(extendImageCrc(12345, bytes.data(), bytes.size()), boostCrc(12345, bytes.data(), bytes.size()));
}

TEST(ImageCrc, IsComputedInTheFirstWayThatIsAvailable) {
  const imagecrc::Way* way = std::begin(imagecrc::kWays);
  while (!way->isAvailable()) {
    ++way;
  }

  EXPECT_STREQ(imagecrc::fastestWay().name, way->name);
}
