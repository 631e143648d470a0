// SPDX-License-Identifier: Apache-2.0
#include "version-order.h"

#include <gmock/gmock.h>

#include <cstddef>
#include <string>
#include <vector>

namespace {

using fwpackage::isOlder;

struct Pair {
  const char* older;
  const char* newer;
};

void PrintTo(const Pair& pair, std::ostream* out) {
  *out << pair.older << " and " << pair.newer;
}

class VersionOrder : public testing::TestWithParam<Pair> {};

TEST_P(VersionOrder, TellsOlderFromNewer) {
  EXPECT_TRUE(isOlder(GetParam().older, GetParam().newer));
  EXPECT_FALSE(isOlder(GetParam().newer, GetParam().older));
}

INSTANTIATE_TEST_SUITE_P(Of, VersionOrder,
                         testing::Values(Pair{"1.9", "1.10"}, Pair{"1.10", "1.10.1"}, Pair{"", "0"},
                                         Pair{"", "a"}, Pair{"2", "10"}, Pair{"9", "10"},
                                         Pair{"1.0", "1.0-rc1"}, Pair{"1.0a", "1.0b"}, Pair{"a9", "a10"},
                                         Pair{"1-2", "1.2"}, Pair{"1.2", "1:2"}, Pair{"1.2", "1.a"},
                                         Pair{"1.-", "1.2"}, Pair{"0099", "100"}, Pair{"2.0.9", "2.1.0"},
                                         Pair{"v1", "v\xff"}, Pair{"a", "b1"}, Pair{"1a2", "1b1"},
                                         Pair{"1.0.0", "2"},
                                         Pair{"18446744073709551615", "18446744073709551616"},
                                         Pair{"4294967296", "99999999999999999999999999999999999999999"}),
                         [](const auto& tested) { return "Pair" + std::to_string(tested.index); });

TEST(VersionOrder, TakesEqualNumbersForEqual) {
  for (const Pair pair : {Pair{"1.0", "1.00"}, Pair{"01", "1"}, Pair{"0", "000"}, Pair{"", ""},
                          Pair{"1.2.3", "1.2.3"}, Pair{"a0b", "a00b"}}) {
    EXPECT_FALSE(isOlder(pair.older, pair.newer)) << pair.older << " " << pair.newer;
    EXPECT_FALSE(isOlder(pair.newer, pair.older)) << pair.older << " " << pair.newer;
  }
}

// An order: with it, no chain of packages leads back.
TEST(VersionOrder, LeadsInOneDirection) {
  std::vector<std::string> texts = {""};
  const std::string signs = "01a.-";
  for (std::size_t first = 0; texts[first].size() < 3; ++first) {
    for (const char sign : signs) {
      texts.push_back(texts[first] + sign);
    }
  }
  std::vector<std::vector<bool>> older(texts.size(), std::vector<bool>(texts.size()));
  for (std::size_t a = 0; a < texts.size(); ++a) {
    for (std::size_t b = 0; b < texts.size(); ++b) {
      older[a][b] = isOlder(texts[a], texts[b]);
    }
  }

  std::size_t broken = 0;
  for (std::size_t a = 0; a < texts.size(); ++a) {
    for (std::size_t b = 0; b < texts.size(); ++b) {
      broken += older[a][b] && older[b][a] ? 1U : 0U;
      for (std::size_t c = 0; c < texts.size(); ++c) {
        // What is older than the older is older; what is equal to both is between neither.
        broken += older[a][b] && older[b][c] && !older[a][c] ? 1U : 0U;
        broken += older[a][c] && !older[a][b] && !older[b][c] ? 1U : 0U;
      }
    }
  }
  EXPECT_EQ(broken, 0U);
}

}  // namespace
