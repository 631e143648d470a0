// SPDX-License-Identifier: Apache-2.0
#include "callers.h"

#include <gmock/gmock.h>

#include <fstream>
#include <iterator>
#include <string>

namespace {

using ::testing::HasSubstr;

std::string textOf(const char* path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

TEST(Callers, AreServedFromTheirOwnPlacesAndTheOthersFromPackages) {
  EXPECT_EQ(fwcallers::imagesOf(CALLER_FACTORY), UPDATE_TYPE_USB);
  EXPECT_EQ(fwcallers::imagesOf(CALLER_UPGRADE_APP), UPDATE_TYPE_BUILTIN);
  EXPECT_EQ(fwcallers::imagesOf(CALLER_LSM), UPDATE_TYPE_SBOX);
  EXPECT_EQ(fwcallers::imagesOf(static_cast<CallerTypes>(8)), UPDATE_TYPE_EMP);
  EXPECT_EQ(fwcallers::imagesOf(static_cast<CallerTypes>(-1)), UPDATE_TYPE_EMP);
}

TEST(Callers, HaveOnePlaceHoweverTheyAreCalled) {
  for (const fwcallers::Caller& caller : fwcallers::kCallers) {
    EXPECT_EQ(fwcallers::imagesOf(caller.type), caller.images) << caller.places;
  }
}

TEST(Callers, AreFoundByTheirNames) {
  EXPECT_EQ(fwcallers::findCaller("lsm")->type, CALLER_LSM);
  EXPECT_NE(fwcallers::findCaller(fwcallers::kDefaultCaller), nullptr);
  EXPECT_EQ(fwcallers::findCaller("nobody"), nullptr);
}

TEST(Callers, AreInTheHandbook) {
  const std::string handbook = textOf(HANDBOOK);
  for (const fwcallers::Caller& caller : fwcallers::kCallers) {
    if (caller.name != nullptr) {
      EXPECT_THAT(handbook, HasSubstr("| `" + std::string(caller.name) + "` |"));
    }
  }
}

}  // namespace
