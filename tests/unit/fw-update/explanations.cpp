// SPDX-License-Identifier: Apache-2.0
#include "explain/explanations.h"

#include <gmock/gmock.h>

#include <string>

#include "library-messages.h"
#include "library/meaning-table.h"
#include "outcomes.h"

namespace {

using ::testing::HasSubstr;
using tool::Explanation;

Explanation explained(const std::string& line) {
  const auto explanation = tool::explain(line);
  EXPECT_TRUE(explanation) << line;
  return explanation.value_or(Explanation{});
}

TEST(Explanations, TellWhatALineOfTheLogMeans) {
  const Explanation of = explained(
      "Nov 22 04:12:01 set FWUPDATE[311]: fw-update-symbol.cpp: checkVersion(412) > "
      "Error: tunerfw Firmware CRC32 different");

  EXPECT_EQ(of.pattern, "Error: … Firmware CRC32 different");
  EXPECT_THAT(of.means, HasSubstr("image is damaged"));
  EXPECT_NE(of.remedy, "");
  EXPECT_EQ(of.page, "docs/troubleshooting.md");
}

TEST(Explanations, TellWhatASentenceOfTheCommandMeans) {
  const Explanation of = explained("fw-update: libtuner could not compare its version with the image's.");

  EXPECT_EQ(of.pattern, "… could not compare its version with the image's.");
  EXPECT_NE(of.means, "");
  EXPECT_EQ(of.remedy, "Check that the component is connected and answers: fw-update info libtuner");
}

TEST(Explanations, TakeTheLineWithMostOfItsWords) {
  EXPECT_EQ(explained("Error: tunerfw Firmware not need update").pattern,
            "Error: … Firmware not need update");
  EXPECT_EQ(explained("Error: tunerfw file is NOT signed").pattern, "Error: … file is NOT signed");
  EXPECT_EQ(explained("tunerfw update timeout").pattern, "… update timeout");
  EXPECT_EQ(explained("the revoked key: the package's key is revoked").pattern,
            "the package's key is revoked");
}

TEST(Explanations, TellWhatAnOutcomeIs) {
  EXPECT_THAT(explained("timed-out").means, HasSubstr("exit code 7"));
  EXPECT_THAT(explained("  \"outcome\" : \"timed-out\",").means, HasSubstr("exit code 7"));
  EXPECT_THAT(explained("Not updated: libtuner (module-hung).").means, HasSubstr("exit code 14"));
  EXPECT_THAT(explained("\"reason\": \"too-slow\"").remedy, HasSubstr("min_speed_kib_s"));
}

TEST(Explanations, AreNotMadeUpForOtherLines) {
  EXPECT_FALSE(tool::explain(""));
  EXPECT_FALSE(tool::explain("the picture is stopped and the sound is ok"));
  EXPECT_FALSE(tool::explain("%s"));
}

// Each with names in its gaps; what a line that holds more of another one's words says is
// then that one's.
TEST(Explanations, KnowEveryLineOfTheirTables) {
  const auto all = tool::allExplanations();

  ASSERT_GT(all.size(), 200u);
  for (const Explanation& known : all) {
    std::string line = known.pattern;
    for (auto at = line.find("…"); at != std::string::npos; at = line.find("…", at)) {
      line.replace(at, 3, "x");
    }
    const auto found = tool::explain(line);
    ASSERT_TRUE(found) << line;
    EXPECT_GE(found->pattern.size(), known.pattern.size()) << line;
    EXPECT_NE(found->means, "") << line;
    EXPECT_EQ(found->remedy.find('{'), std::string::npos) << found->remedy;
  }
}

TEST(Explanations, KnowEverySentenceAndEveryOutcomeOfTheCommand) {
  for (const tool::Meaning& meaning : tool::meaningTable()) {
    EXPECT_TRUE(tool::explain(meaning.sentence)) << meaning.sentence;
    EXPECT_TRUE(tool::explain(meaning.format) || std::string(meaning.format) == MESSAGE_TIMED_OUT)
        << meaning.format;
  }
  for (const auto& outcome : tool::kOutcomeTable) {
    EXPECT_TRUE(tool::explain(outcome.id)) << outcome.id;
  }
}

}  // namespace
