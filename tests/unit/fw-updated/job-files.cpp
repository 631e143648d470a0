// SPDX-License-Identifier: Apache-2.0
#include "job-files.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;
using updated::Job;
using updated::JobFiles;
using updated::Kind;
using updated::State;

class ServiceJobFiles : public ::testing::Test {
 protected:
  ServiceJobFiles() {
    char name[] = "/tmp/job-files-XXXXXX";
    directory_ = mkdtemp(name);
    files_.emplace(directory_ + "/jobs");
  }
  ~ServiceJobFiles() override { std::filesystem::remove_all(directory_); }

  std::string path(const std::string& name) const { return directory_ + "/jobs/" + name; }
  void write(const std::string& name, const std::string& text) const { std::ofstream(path(name)) << text; }

  static Job job(std::uint64_t number, Kind kind = Kind::Update) {
    Job job;
    job.number = number;
    job.request = {kind, "libtuner", "lsm", "data", "/media", 1000, ":1.7"};
    job.request.isHandedOver = true;
    job.beganAt = 1795348800.5;
    return job;
  }

  std::string directory_;
  std::optional<JobFiles> files_;
};

TEST_F(ServiceJobFiles, AreForThisUserAlone) {
  struct stat status = {};

  ASSERT_EQ(stat(path("").c_str(), &status), 0);

  EXPECT_EQ(status.st_mode & 07777U, 0700U);
  EXPECT_NO_THROW(JobFiles(directory_ + "/jobs"));
  EXPECT_THROW(JobFiles(directory_ + "/none/jobs"), std::system_error);
}

TEST_F(ServiceJobFiles, KeepWhatWasAskedFor) {
  ASSERT_TRUE(files_->keep(job(12, Kind::UsbApply)));

  const auto jobs = files_->load();

  ASSERT_THAT(jobs, SizeIs(1));
  EXPECT_EQ(jobs[0].number, 12u);
  EXPECT_EQ(jobs[0].state, State::Queued);
  EXPECT_EQ(jobs[0].request.kind, Kind::UsbApply);
  EXPECT_EQ(jobs[0].request.module, "libtuner");
  EXPECT_EQ(jobs[0].module, "libtuner");
  EXPECT_EQ(jobs[0].request.caller, "lsm");
  EXPECT_EQ(jobs[0].request.data, "data");
  EXPECT_EQ(jobs[0].request.folder, "/media");
  EXPECT_EQ(jobs[0].request.user, 1000u);
  EXPECT_EQ(jobs[0].request.client, ":1.7");
  EXPECT_TRUE(jobs[0].request.isHandedOver);
  EXPECT_DOUBLE_EQ(jobs[0].beganAt, 1795348800.5);
}

TEST_F(ServiceJobFiles, KeepHowAJobEnded) {
  Job ended = job(1);
  updated::end(ended, "module-failed", 6, "It failed.", "Try again.");

  ASSERT_TRUE(files_->keep(ended));
  const auto jobs = files_->load();

  ASSERT_THAT(jobs, SizeIs(1));
  EXPECT_TRUE(jobs[0].isDone());
  EXPECT_EQ(jobs[0].outcome, "module-failed");
  EXPECT_EQ(jobs[0].exitCode, 6);
  EXPECT_EQ(jobs[0].remedy, "Try again.");
  EXPECT_EQ(jobs[0].document, ended.document);
}

TEST_F(ServiceJobFiles, KeepThatAJobAsks) {
  Job asking = job(1);
  asking.state = State::Asking;

  ASSERT_TRUE(files_->keep(asking));

  EXPECT_EQ(files_->load().at(0).state, State::Asking);
  EXPECT_EQ(files_->load().at(0).sentence, updated::kWaitsForConsent);
}

TEST_F(ServiceJobFiles, AreReadInTheOrderOfTheirNumbers) {
  for (const std::uint64_t number : {10U, 9U, 100U}) {
    ASSERT_TRUE(files_->keep(job(number)));
  }

  const auto jobs = files_->load();

  ASSERT_THAT(jobs, SizeIs(3));
  EXPECT_EQ(jobs[0].number, 9u);
  EXPECT_EQ(jobs[1].number, 10u);
  EXPECT_EQ(jobs[2].number, 100u);
}

TEST_F(ServiceJobFiles, LeaveOutWhatIsNoJob) {
  ASSERT_TRUE(files_->keep(job(1)));
  const std::string good = R"({"kind":"update","user":0})";
  for (const char* name : {"0.job", ".job", "x.job", "1x.job", "2", "3.jobs", "1234567890123456789.job"}) {
    write(name, good);
  }
  write("4.job", R"({"kind":"nothing","user":0})");
  write("5.job", R"({"kind":"update","user":-1})");
  write("6.job", "{");
  write("7.job", good);

  const auto jobs = files_->load();

  ASSERT_THAT(jobs, SizeIs(2));
  EXPECT_EQ(jobs[0].number, 1u);
  EXPECT_EQ(jobs[1].number, 7u);
}

TEST_F(ServiceJobFiles, SayWhetherWorkHasBegunAndForgetIt) {
  ASSERT_TRUE(files_->keep(job(1)));
  EXPECT_FALSE(files_->hasBegun(1));
  write("1.out", "");
  write("1.gate", "");
  EXPECT_TRUE(files_->hasBegun(1));

  files_->removeWork(1);

  EXPECT_FALSE(files_->hasBegun(1));
  EXPECT_FALSE(std::filesystem::exists(files_->gate(1)));
  EXPECT_THAT(files_->load(), SizeIs(1));
  files_->remove(1);
  EXPECT_THAT(files_->load(), IsEmpty());
}

// A directory in the way of the new file is as good as no room for it.
TEST_F(ServiceJobFiles, KeepTheEndInTheRoomThatThereIs) {
  Job ended = job(1);
  ASSERT_TRUE(files_->keep(ended));
  std::filesystem::create_directory(path("1.job.new"));
  updated::end(ended, "module-failed", 6, "It failed.", "Try again.");

  ASSERT_TRUE(files_->keep(ended));

  EXPECT_EQ(files_->load().at(0).document, ended.document);
  updated::end(ended, "stopped", 1, "", "");  // it is shorter
  ASSERT_TRUE(files_->keep(ended));
  EXPECT_EQ(files_->load().at(0).outcome, "stopped");
}

TEST_F(ServiceJobFiles, KeepWhatWasThereWhenTheEndDoesNotFit) {
  Job ended = job(1);
  ASSERT_TRUE(files_->keep(ended));
  std::filesystem::create_directory(path("1.job.new"));
  updated::end(ended, "module-failed", 6, std::string(100000, 'x'), "");

  EXPECT_FALSE(files_->keep(ended));

  EXPECT_FALSE(files_->load().at(0).isDone());
}

TEST_F(ServiceJobFiles, SayThatThereIsNoRoom) {
  std::filesystem::remove_all(path(""));

  EXPECT_FALSE(files_->keep(job(1)));
  EXPECT_THAT(files_->load(), IsEmpty());
}

}  // namespace
