// SPDX-License-Identifier: Apache-2.0
#include "explain/explanations.h"

#include <gmock/gmock.h>

#include <csignal>
#include <cstring>
#include <iterator>
#include <set>
#include <string>

#include "fw-download/failure.h"
#include "history.h"
#include "isolation/crash-report.h"
#include "library-messages.h"
#include "library/meaning-table.h"
#include "lock/lock-recovery.h"
#include "outcomes.h"
#include "service/document.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
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

std::string wordsOf(std::string pattern) {
  for (auto at = pattern.find("…"); at != std::string::npos; at = pattern.find("…", at)) {
    pattern.erase(at, std::strlen("…"));
  }
  return pattern;
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
    EXPECT_GE(wordsOf(found->pattern).size(), wordsOf(known.pattern).size()) << line;
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
  for (const auto& outcome : tool::kServiceOutcomes) {
    EXPECT_TRUE(tool::explain(outcome.id)) << outcome.id;
  }
  EXPECT_THAT(explained("fw-update: No update service is on the bus.").means, HasSubstr("no-service"));
}

TEST(Explanations, KnowTheEndsThatOnlyTheHistoryHas) {
  for (const char* const end : {history::kRunning, history::kInterrupted}) {
    EXPECT_EQ(explained(end).pattern, end);
    EXPECT_THAT(explained(end).means, StartsWith("So the history calls"));
    EXPECT_EQ(explained(end).page, "docs/history.md");
  }
}

// Each as it is put together, with every step at which it may happen.
TEST(Explanations, KnowHowAModuleMayEndItsProcess) {
  tool::ChildRecord child{};
  std::strcpy(child.module, "libtuner");
  for (const tool::Step step : {tool::Step::Start, tool::Step::Load, tool::Step::Version, tool::Step::Check,
                                tool::Step::Write, tool::Step::Procedure, tool::Step::Package}) {
    child.step = step;
    EXPECT_THAT(explained(tool::explainCrash(child, SIGSEGV).message).pattern, HasSubstr(" crashed"));
    EXPECT_THAT(explained(tool::explainCrash(child, SIGKILL).message).pattern, HasSubstr(" was killed"));
    EXPECT_THAT(explained(tool::explainCrash(child, 3 << 8).message).pattern, HasSubstr(" with exit code "));
    const std::string hung = tool::explainHang(child, tool::Seconds(120)).message;
    EXPECT_THAT(explained(hung).pattern, HasSubstr(" hung ")) << hung;
    EXPECT_THAT(explained(hung).remedy, HasSubstr("--isolated"));
  }
}

TEST(Explanations, KnowWhatIsSaidOfTheUpdateLock) {
  for (const auto result :
       {tool::RecoveryResult::GivenBack, tool::RecoveryResult::Free, tool::RecoveryResult::MayBeHeld,
        tool::RecoveryResult::MayBeHidden, tool::RecoveryResult::OtherRecovery}) {
    const tool::Finding finding = tool::explainRecovery({result, 0, {}});
    EXPECT_NE(explained(finding.message).means, "") << finding.message;
  }
  EXPECT_THAT(explained("fw-update: The update lock is stuck: it is taken, and no process holds it.").remedy,
              HasSubstr("fw-update lock recover"));
}

TEST(Explanations, KnowWhatWasCutOff) {
  const history::Entry cutOff = history::interrupted({});

  for (const std::string& line : {cutOff.sentence, cutOff.outcome, "(" + cutOff.outcome + ")"}) {
    EXPECT_THAT(explained(line).remedy, HasSubstr("fw-update lock status")) << line;
  }
}

TEST(Explanations, SayOfEachReasonOfADownloadWhenItIsSo) {
  std::set<std::string> means;
  for (const fwdownload::ReasonInfo& reason : fwdownload::kReasons) {
    const Explanation of = explained(reason.name);
    EXPECT_THAT(of.means, HasSubstr(std::string("the reason ") + reason.name + ": "));
    EXPECT_EQ(of.remedy, reason.remedy);
    means.insert(of.means);
  }
  EXPECT_EQ(means.size(), std::size(fwdownload::kReasons));
  EXPECT_THAT(explained("tunerempfw was not downloaded: The server redirects more than 5 times.").means,
              HasSubstr("the reason redirect: "));
}

TEST(Explanations, SayWhereToLookInWholeSentences) {
  for (const Explanation& known : tool::allExplanations()) {
    EXPECT_THAT(known.remedy, Not(StartsWith("docs/"))) << known.pattern;
    EXPECT_THAT(known.remedy, Not(StartsWith("Docs/"))) << known.pattern;
    EXPECT_NE(known.means, "") << known.pattern;
  }
}

}  // namespace
