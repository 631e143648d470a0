// SPDX-License-Identifier: Apache-2.0
// How the command puts out what it does, through pipes.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "child-process.h"
#include "tool-test.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class Output : public ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    installModule("libtuner");
    installImage("tunerfw");
  }
};

TEST_F(Output, OfAnUpdateIsAFewPlainLines) {
  describeComponent("tunerfw", "write_kib_per_second = 2048");

  const Ended ended = run({"update", "libtuner"});

  EXPECT_EQ(ended.exitCode, 0);
  EXPECT_THAT(ended.out, StartsWith("libtuner: update requested by upgrade-app\nlibtuner: "));
  EXPECT_THAT(ended.out, HasSubstr("libtuner was updated. Version 0.0.0 -> 2.0.0 in "));
  EXPECT_LE(std::count(ended.out.begin(), ended.out.end(), '\n'), 13);
  EXPECT_THAT(ended.out, Not(HasSubstr("\r")));
  EXPECT_THAT(ended.out + ended.err, Not(HasSubstr("\x1b")));
}

TEST_F(Output, OfAFailureIsASentenceAndARemedyOnStandardError) {
  const Ended ended = run({"info", "nobody"});

  EXPECT_EQ(ended.out, "");
  EXPECT_EQ(ended.err, "fw-update: There is no module nobody.\nInstalled are: libtuner.\n");
}

TEST_F(Output, AsNdjsonTellsStartProgressAndResult) {
  describeComponent("tunerfw", "write_kib_per_second = 2048");

  const Ended ended = run({"update", "libtuner", "--progress", "ndjson", "--json"});

  const auto events = lines(ended.out);
  ASSERT_GE(events.size(), 4u);
  EXPECT_EQ(events.front()["event"].asString(), "start");
  EXPECT_EQ(events.front()["module"].asString(), "libtuner");
  EXPECT_EQ(events.back()["event"].asString(), "result");
  EXPECT_EQ(events.back()["outcome"].asString(), "updated");
  EXPECT_EQ(events.back()["versionAfter"].asString(), "2.0.0");
  unsigned int percent = 0;
  EXPECT_EQ(events[events.size() - 2]["event"].asString(), "verifying");
  for (std::size_t i = 1; i + 2 < events.size(); ++i) {
    EXPECT_EQ(events[i]["event"].asString(), "progress");
    EXPECT_EQ(events[i]["expectedSeconds"].asInt(), 60);
    EXPECT_GE(events[i]["percent"].asUInt(), percent);
    percent = events[i]["percent"].asUInt();
  }
}

class OutputOfOddProgress : public Output {
 protected:
  // The percents that are told of it.
  static std::vector<int> toldOf(const std::string& behaviour) {
    installOddModule();
    installImage("oddfw");
    std::vector<int> percents;
    const Ended ended = run({"update", "libodd", "--progress", "ndjson"}, {{"ODD_MODULE=" + behaviour}});
    for (const Json::Value& event : lines(ended.out)) {
      if (event.isMember("percent")) {
        percents.push_back(event["percent"].asInt());
      }
    }
    return percents;
  }
};

TEST_F(OutputOfOddProgress, IsNotTheEndOfTheUpdateBefore) {
  EXPECT_THAT(toldOf("old-progress"), ElementsAre(50));
}

TEST_F(OutputOfOddProgress, IsNotMoreThanAll) {
  EXPECT_THAT(toldOf("much-progress"), ElementsAre(50));
}

TEST_F(Output, AsNdjsonTellsOnceThatAnUpdateIsOverdue) {
  describeComponent("tunerfw", "stall_at_percent = 40");
  installImage("tunerfw", "2.0.0", 0);

  const Ended ended = run({"update", "libtuner", "--progress", "ndjson"});

  std::vector<Json::Value> overdue;
  for (const Json::Value& event : lines(ended.out)) {
    if (event["event"] == "overdue") {
      overdue.push_back(event);
    }
  }
  ASSERT_EQ(overdue.size(), 1u);
  EXPECT_EQ(overdue[0]["givesUpAtSeconds"].asInt(), 2);
  EXPECT_EQ(lines(ended.out).back()["exitCode"].asInt(), 7);
}

TEST_F(Output, AnswersUsageErrorsInTheFormThatWasAskedFor) {
  EXPECT_EQ(document({"update"})["outcome"].asString(), "usage");
  EXPECT_EQ(run({"update"}).out, "");
  EXPECT_THAT(run({"update"}).err, HasSubstr("NAME is required\nTry: fw-update update --help\n"));
}

TEST_F(Output, ShowsTheLibrarysLogOnStandardErrorAndInTheDocument) {
  const Ended ended = run({"update", "libtuner", "--json", "--log"});

  EXPECT_THAT(ended.err, HasSubstr("update_timeout_wrapper("));
  EXPECT_THAT(ended.err, HasSubstr("tunerfw update time 60 ms"));
  EXPECT_THAT(ended.out, HasSubstr("\"text\" : \"tunerfw update time 60 ms\""));
}

TEST_F(Output, IsQuietAboutTheLogOtherwise) {
  EXPECT_EQ(run({"update", "libtuner"}).err, "");
}

TEST_F(Output, DoesNotWaitForAModuleThatNeverTellsItsProgress) {
  installOddModule();
  installImage("oddfw");

  const Ended ended = run({"update", "libodd"}, {{"ODD_MODULE=hanging-progress"}});

  EXPECT_EQ(ended.exitCode, 0);
  EXPECT_THAT(ended.out, HasSubstr("libodd was updated."));
}

// On a disk that is full.
int exitCodeWithOutputLost(const std::vector<std::string>& arguments) {
  return runInChild([&] {
    dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO);
    std::vector<char*> words{const_cast<char*>("fw-update")};
    for (const std::string& argument : arguments) {
      words.push_back(const_cast<char*>(argument.c_str()));
    }
    words.push_back(nullptr);
    return execv(TESTED_TOOL, words.data());
  });
}

TEST_F(Output, IsAnErrorWhenItIsLost) {
  EXPECT_EQ(run({"list"}).exitCode, 0);
  EXPECT_EQ(exitCodeWithOutputLost({"list"}), 1);
  EXPECT_EQ(exitCodeWithOutputLost({"list", "--json"}), 1);
}

TEST_F(Output, IsAnErrorWhenTheAnswerForACrashedModuleIsLost) {
  std::filesystem::copy_file(FAULTY_MODULE, std::string(kControls) + "libfaulty.so");
  setenv("FAULTY_MODULE", "load segv", 1);
  const std::vector<std::string> update{"update", "libfaulty", "--isolated", "--json"};

  EXPECT_EQ(run(update).exitCode, 13);
  EXPECT_EQ(exitCodeWithOutputLost(update), 1);
}

}  // namespace
