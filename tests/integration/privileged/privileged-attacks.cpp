// SPDX-License-Identifier: Apache-2.0
// Attacks on the privileged service by somebody who may write to the packages'
// directories: nothing is mounted that was not checked, nothing outside of emps/, and
// the service waits for nobody.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "device-environment.h"
#include "package-images.h"
#include "privileged-calls.h"
#include "privileged/privileged-client.h"
#include "privileged/squashfs-unpack.h"
#include "service-process.h"
#include "swapper.h"
#include "thoroughness.h"

namespace {

namespace fs = std::filesystem;
using fwplatform::askPrivilegedService;
using fwplatform::PrivilegedAnswer;
using fwplatform::PrivilegedOperation;
using ::testing::IsEmpty;

// More make an attack surer: FW_UPDATE_ATTACK_REQUESTS=60000.
int requests() {
  const char* const wanted = std::getenv("FW_UPDATE_ATTACK_REQUESTS");
  return wanted != nullptr ? std::atoi(wanted) : 1500 / thoroughness::kEveryNth;
}

class PrivilegedAttack : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    image_ = makeImage(name_, "allowed");
    directory_ = makeDirectory(name_);
    fs::create_directory(kOutside);
    service_ = std::make_unique<ServiceProcess>();
    ASSERT_TRUE(service_->waitUntilServing());
    // The log is read meanwhile, so that the service never waits for its reader.
    reader_ = std::thread([this] { service_->readToTheEnd(); });
  }

  void TearDown() override {
    if (reader_.joinable()) {
      service_->signal(SIGKILL);
      reader_.join();
    }
  }

  // Asks for mounts, and for their end when there is one; counts the answers. Ends
  // early when the service does not answer.
  void attack() {
    for (int i = 0; i < requests() && !HasFatalFailure(); ++i) {
      Answer answer = ask(PrivilegedOperation::Mount, mountText(name_) + '\0');
      ++answers_[{answer.status, answer.result}];
      EXPECT_THAT(mountsOn(kOutside), IsEmpty());
      ASSERT_FALSE(HasFailure()) << "at request " << i;
      if (answer == kDone) {
        ASSERT_EQ(readFile(directory_ + "/content"), "allowed");
        ASSERT_EQ(unmount(), kDone);
      }
    }
    for (const auto& [answer, count] : answers_) {
      std::printf("status %d, result %d: %d times\n", answer.first, answer.second, count);
    }
  }

  // Busy for as long as the attacker's look into the directory takes.
  Answer unmount() {
    Answer answer = ask(PrivilegedOperation::Umount, directory_);
    for (int tries = 1; answer == failedWith(EBUSY) && tries < 1000; ++tries) {
      answer = ask(PrivilegedOperation::Umount, directory_);
    }
    return answer;
  }

  Answer ask(PrivilegedOperation operation, const std::string& text) {
    PrivilegedAnswer answer;
    const int status = askPrivilegedService(operation, text, 10000, answer);
    EXPECT_EQ(status, 0) << "the service gave no answer";
    return status == 0 ? Answer{answer.status, answer.result} : Answer{status, kUntouched};
  }

  void expectThatItEndsWhenItIsAsked() {
    service_->signal(SIGTERM);
    ASSERT_TRUE(service_->waitUntilEnded()) << "ten seconds later it still runs";
    reader_.join();
    EXPECT_EQ(service_->waitForEnd(), 0);
  }

  int done() const { return countOf({0, 0}); }
  int refused() const { return countOf({-EPERM, 0}); }

  const std::string kOutside = kPackages + "/outside";
  const std::string name_ = uniquePackageName();
  std::string image_;
  std::string directory_;
  std::unique_ptr<ServiceProcess> service_;

 private:
  int countOf(const std::pair<int, int>& answer) const {
    const auto found = answers_.find(answer);
    return found == answers_.end() ? 0 : found->second;
  }

  std::map<std::pair<int, int>, int> answers_;
  std::thread reader_;
};

TEST_F(PrivilegedAttack, ByExchangingTheImageHangsNothingAndMountsNothingElse) {
  ASSERT_EQ(mkfifo((kPackages + "/pipe").c_str(), 0600), 0);
  fs::create_symlink(kPackages + "/pipe", kPackages + "/link");
  {
    const Swapper swapper({{image_, kPackages + "/pipe"}, {image_, kPackages + "/link"}, {image_, kOutside}});

    attack();

    EXPECT_GT(swapper.swaps(), 0);
  }
  EXPECT_GT(done(), 0);
  EXPECT_GT(refused(), 0) << "nothing else was ever there, so this showed nothing";
  EXPECT_THAT(loopDevicesLeftOf(name_), IsEmpty());
  expectThatItEndsWhenItIsAsked();
}

TEST_F(PrivilegedAttack, ByRenamingTheDirectoryPutsNoMountElsewhere) {
  fs::create_directory_symlink(kOutside, kPackages + "/link");
  {
    const Swapper swapper({{directory_, kOutside}, {directory_, kPackages + "/link"}});

    attack();

    EXPECT_GT(swapper.swaps(), 0);
  }
  EXPECT_GT(done(), 0);
  EXPECT_GT(refused(), 0) << "nothing else was ever there, so this showed nothing";
  EXPECT_THAT(loopDevicesLeftOf(name_), IsEmpty());
  expectThatItEndsWhenItIsAsked();
}

// Whoever opens a file on which somebody holds a lease waits until that one gives it up.
TEST_F(PrivilegedAttack, ByALeaseOnTheImageHangsNothing) {
  signal(SIGIO, SIG_IGN);
  const base::FileDescriptor holder(open(image_.c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(fcntl(holder.get(), F_SETLEASE, F_WRLCK), 0);

  EXPECT_EQ(ask(PrivilegedOperation::Mount, mountText(name_) + '\0'), failedWith(EAGAIN));

  expectThatItEndsWhenItIsAsked();
}

}  // namespace
