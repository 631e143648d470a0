// SPDX-License-Identifier: Apache-2.0
#include "tool-query.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

using std::chrono::milliseconds;
using ::testing::HasSubstr;
using updated::ToolAnswer;
using updated::ToolQueries;

class ServiceQuestions : public ::testing::Test {
 protected:
  ServiceQuestions() {
    char name[] = "/tmp/questions-XXXXXX";
    directory_ = mkdtemp(name);
  }
  ~ServiceQuestions() override { std::filesystem::remove_all(directory_); }

  // One that does this when it is asked.
  std::string program(const std::string& commands) const {
    const std::string path = directory_ + "/program";
    std::ofstream(path) << "#!/bin/sh\n" << commands << "\n";
    chmod(path.c_str(), 0700);
    return path;
  }

  ToolAnswer answerOf(const std::string& program, milliseconds patience) {
    updated::EventLoop loop;
    ToolQueries queries(loop, program, patience);
    ToolAnswer given;
    queries.ask({"list"}, [&given](const ToolAnswer& answer) {
      given = answer;
      std::raise(SIGTERM);  // ends the loop
    });
    loop.run();
    return given;
  }

  std::string directory_;
};

constexpr milliseconds kLong = std::chrono::minutes(10);

TEST_F(ServiceQuestions, AreAnsweredWithTheDocument) {
  const ToolAnswer answer = answerOf(program("echo \"{\\\"words\\\": \\\"$*\\\"}\""), kLong);

  EXPECT_EQ(answer.problem, "");
  EXPECT_EQ(answer.document["words"].asString(), "list --json");
}

TEST_F(ServiceQuestions, AreGivenUpWhenNobodyAnswers) {
  const ToolAnswer answer = answerOf(program("exec sleep 1000"), milliseconds(1));

  EXPECT_EQ(answer.problem, "A module gave no answer, and the question was given up.");
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a process was left";
}

TEST_F(ServiceQuestions, SayThatACommandEndedWithoutAnAnswer) {
  EXPECT_EQ(answerOf(program("kill -9 $$"), kLong).problem,
            "A module crashed, or ended the command that asked.");
  EXPECT_THAT(answerOf("/nowhere/fw-update", kLong).problem, HasSubstr("cannot be started: No such file"));
}

}  // namespace
