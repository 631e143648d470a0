#include "isolation/child-process.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

namespace {

std::vector<pid_t> killed;

}  // namespace

// In place of the C library's: a number that is another process's by now is not to be had
// at will. The names in the header are reserved.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int kill(pid_t process, int signal) noexcept {
  killed.push_back(process);
  return static_cast<int>(syscall(SYS_kill, process, signal));
}

namespace {

// This program once more, which ends at once.
class AChildCommand : public ::testing::Test {
 protected:
  void waitForItsEnd() {
    while (!child.status()) {
      child.wait(std::chrono::milliseconds(100), {[](const tool::Told&) {}, [](int, bool) {}});
    }
  }

  std::string name = "test-fw-update";
  std::string option = "--gtest_filter=-*";
  char* arguments[3] = {name.data(), option.data(), nullptr};
  tool::ChildCommand child{arguments};
};

TEST_F(AChildCommand, IsKilledWhileItRuns) {
  ASSERT_EQ(::kill(child.id(), SIGSTOP), 0);  // it cannot end before
  killed.clear();

  child.kill(SIGKILL);

  EXPECT_EQ(killed, std::vector<pid_t>{child.id()});
  waitForItsEnd();
  EXPECT_TRUE(WIFSIGNALED(*child.status()));
}

TEST_F(AChildCommand, IsNotKilledAfterItsEndWhenItsNumberMayBeAnothers) {
  waitForItsEnd();
  killed.clear();

  child.kill(SIGTERM);

  EXPECT_TRUE(killed.empty());
}

}  // namespace
