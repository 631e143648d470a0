// SPDX-License-Identifier: Apache-2.0
#include "callers.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

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

// In lower case, the line breaks of comments as blanks.
std::string wordsOf(std::string text) {
  std::istringstream words(text);
  text.clear();
  for (std::string word; words >> word;) {
    text += word == "*" ? "" : word + " ";
  }
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// Which is for authors in plain C, who have no enumerators.
TEST(Callers, AreNumberedInTheHeaderOfModules) {
  std::string header = wordsOf(textOf(MODULE_HEADER));
  header = header.substr(header.find("callertypes of "));
  header = header.substr(0, header.find("*/"));

  for (const fwcallers::Caller& caller : fwcallers::kCallers) {
    std::string name = caller.name != nullptr && caller.fixedData == nullptr ? caller.name : "";
    std::replace(name.begin(), name.end(), '-', ' ');
    EXPECT_THAT(header, HasSubstr(" " + std::to_string(caller.type) + " " + name));
  }
  EXPECT_THAT(header, Not(HasSubstr(" " + std::to_string(fwcallers::countTypes()) + " ")));
}

}  // namespace
