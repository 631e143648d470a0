// SPDX-License-Identifier: Apache-2.0
#include "dotted-version.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using fwcomponent::compareVersions;
using fwcomponent::isVersion;

TEST(DottedVersion, OrdersVersionsByTheirNumbers) {
  struct Case {
    std::string older;
    std::string newer;
  };
  const Case cases[] = {
      {"1.9", "1.10"},
      {"1.2", "1.2.1"},
      {"1.2.0.0", "1.2.0.1"},
      {"0000", "0.0.1"},
      {"0.9.9", "1"},
      {"009", "010"},
      {"4294967295", "4294967296"},
      {"18446744073709551615", "18446744073709551616"},
      {std::string(90, '9'), "1" + std::string(90, '0')},
      {"1." + std::string(90, '0') + "8", "1.9"},
  };

  for (const Case& one : cases) {
    EXPECT_LT(compareVersions(one.older, one.newer), 0) << one.older << " " << one.newer;
    EXPECT_GT(compareVersions(one.newer, one.older), 0) << one.older << " " << one.newer;
  }
}

TEST(DottedVersion, FindsVersionsTheSame) {
  struct Case {
    const char* left;
    const char* right;
  };
  const Case cases[] = {
      {"1.2", "1.2.0"}, {"0", "0000"}, {"0.0.0", "0"}, {"01.002", "1.2"}, {"1.2.0.0.0", "1.2"}, {"7", "7"},
  };

  for (const Case& one : cases) {
    EXPECT_EQ(compareVersions(one.left, one.right), 0) << one.left << " " << one.right;
    EXPECT_EQ(compareVersions(one.right, one.left), 0) << one.left << " " << one.right;
  }
}

TEST(DottedVersion, AcceptsNumbersWithDotsBetweenThem) {
  for (const char* text : {"0", "0000", "1.2", "1.2.3.4.5.6.7.8", "00000000000000000000000001.5"}) {
    EXPECT_TRUE(isVersion(text)) << text;
  }
}

TEST(DottedVersion, RefusesEverythingElse) {
  for (const char* text : {"", ".", "1.", ".1", "1..2", "a", "1.a", "v1.2", "1.2 ", " 1.2", "-1", "+1", "1,2",
                           "1.2-rc1", "1.2\n", "0x10", "\xb2.1"}) {
    EXPECT_FALSE(isVersion(text)) << text;
  }
}

}  // namespace
