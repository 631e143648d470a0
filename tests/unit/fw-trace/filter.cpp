// SPDX-License-Identifier: Apache-2.0
#include "filter.h"

#include <gtest/gtest.h>

#include "time-text.h"

namespace {

using namespace tracetool;

Message saying(const std::string& text, std::int64_t time = 0) {
  Message message;
  message.text = text;
  message.time = time;
  return message;
}

TEST(Filter, TakesTheNameOfAModuleAsAWordOfItsOwn) {
  Wanted wanted;
  wanted.module = "libtuner";
  const Filter filter(wanted);

  for (const char* text :
       {"libtuner", "libtuner failed", "no libtuner", "(libtuner)", "libtuner2 or libtuner"}) {
    EXPECT_TRUE(filter.accepts(saying(text))) << text;
  }
  for (const char* text : {"", "libtuner2", "xlibtuner", "a-libtuner b", "libtuner_x", "libtune"}) {
    EXPECT_FALSE(filter.accepts(saying(text))) << text;
  }
}

TEST(Filter, KnowsWhichCharactersMakeAWord) {
  Wanted wanted;
  wanted.module = "libtuner";
  const Filter filter(wanted);

  for (const char c : std::string("09azAZ_-")) {
    EXPECT_FALSE(filter.accepts(saying(c + std::string("libtuner")))) << c;
    EXPECT_FALSE(filter.accepts(saying(std::string("libtuner") + c))) << c;
  }
  for (const char c : std::string("/:@[`{ ")) {
    EXPECT_TRUE(filter.accepts(saying(c + std::string("libtuner") + c))) << c;
  }
}

TEST(Filter, TakesTheMomentsThatItsTimesName) {
  const std::int64_t noon = *parseTime("2026-01-31T12:00:00", 0);
  Wanted wanted;
  wanted.since = wanted.until = "2026-01-31T12:00:00";
  const Filter filter(wanted);

  EXPECT_TRUE(filter.accepts(saying("", noon)));
  EXPECT_FALSE(filter.accepts(saying("", noon - 1)));
  EXPECT_FALSE(filter.accepts(saying("", noon + 1)));
}

}  // namespace
