// SPDX-License-Identifier: Apache-2.0
// What a process that is gone has left of its log, beside the traces of others.
#include "isolation/dead-process-log.h"

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "temporary-folder.h"
#include "trace-storage.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class DeadProcessLog : public ::testing::Test {
 protected:
  DeadProcessLog() { setenv("FW_UPDATE_TRACE", folder_.path().c_str(), 1); }
  ~DeadProcessLog() override { unsetenv("FW_UPDATE_TRACE"); }

  // A process that leaves this message in its trace.
  static pid_t leave(const char* text) {
    const pid_t process = fork();
    if (process == 0) {
      TraceStorage::Manager& manager = TraceStorage::Manager::Instance();
      TraceStorage::Storage& storage = manager.GetStorage();
      const std::uint32_t location = manager.NewLocationId();
      storage.SaveLocation({"sample.cpp", 42, location, "work", text, {}});
      TraceStorage::Thread* const thread = storage.ThreadHandle();
      const bool isWritten = storage.PrepareCallBuffer(thread, 0, 1, location) != nullptr;
      storage.Commit(thread);
      _exit(isWritten ? 0 : 1);
    }
    int status = -1;
    waitpid(process, &status, 0);
    EXPECT_EQ(status, 0);
    return process;
  }

  static std::vector<std::string> textsOf(pid_t process) {
    std::vector<std::string> texts;
    for (const tool::LogMessage& message : tool::logOfDeadProcess(process)) {
      texts.push_back(message.text);
    }
    return texts;
  }

  base::TemporaryFolder folder_{"/tmp/dead-process-log-"};
};

TEST_F(DeadProcessLog, IsThatOfTheProcessAlone) {
  const pid_t first = leave("of the first");
  const pid_t second = leave("of the second");

  EXPECT_THAT(textsOf(first), ElementsAre("of the first"));
  EXPECT_THAT(textsOf(second), ElementsAre("of the second"));
  EXPECT_THAT(textsOf(getpid()), IsEmpty());
}

}  // namespace
