// SPDX-License-Identifier: Apache-2.0
// Progress and exclusion, inside one process and between two.
#include <fcntl.h>

#include <cerrno>
#include <filesystem>
#include <thread>

#include "module-test.h"

namespace {

class ModuleProgress : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    ASSERT_EQ(updateFrom(tuner_, "1.0.0", oldImage_), 0);
    forgetProgress("tunerfw");
    writeFile(kImagePath, newImage_);
  }

  int update(const std::string& version) const {
    return tuner_.update(version, kImagePath, crcOf(newImage_));
  }

  const LoadedModule tuner_{modulePath("libtuner.so")};
  const std::string oldImage_ = makeImage(100000, 1);
  const std::string newImage_ = makeImage(20 * 65536, 2);
};

TEST_F(ModuleProgress, IsSeenFromAnotherProcess) {
  describeComponent("tunerfw", "stall_at_percent = 40");
  Child updating([&] { return update("2.0.0"); });

  waitForProgress(tuner_, 40);

  EXPECT_EQ(tuner_.progress(), 40u);
  EXPECT_EQ(tuner_.activeVersion(), "1.0.0");
}

TEST_F(ModuleProgress, IsNotRunningAnyMoreAfterTheUpdateWasKilled) {
  describeComponent("tunerfw", "stall_at_percent = 40");
  Child updating([&] { return update("2.0.0"); });
  waitForProgress(tuner_, 40);

  updating.kill();

  EXPECT_EQ(readFile(std::string(kComponents) + "tunerfw.progress"), " 40\n");
  EXPECT_EQ(tuner_.progress(), 0u);
}

TEST_F(ModuleProgress, Stays100AfterAnotherProcessCompletedTheUpdate) {
  Child updating([&] { return update("2.0.0"); });

  ASSERT_EQ(updating.wait(), 0);

  EXPECT_EQ(tuner_.progress(), 100u);
  EXPECT_EQ(readFile(std::string(kComponents) + "tunerfw.progress"), "100\n");
}

TEST_F(ModuleProgress, StaysBelow100UntilTheNewFirmwareIsActive) {
  describeComponent("tunerfw", "stall_at_percent = 100");
  Child updating([&] { return update("2.0.0"); });

  waitForProgress(tuner_, 99);

  EXPECT_EQ(tuner_.progress(), 99u);
  EXPECT_EQ(tuner_.activeVersion(), "1.0.0");
}

TEST_F(ModuleProgress, IsHalfwayWhenEverythingIsWritten) {
  describeComponent("tunerfw", "stall_at_percent = 50");
  Child updating([&] { return update("2.0.0"); });

  waitForProgress(tuner_, 50);

  EXPECT_EQ(tuner_.progress(), 50u);
  EXPECT_EQ(readFile(std::string(kComponents) + "tunerfw.flash.new").substr(256), newImage_);
}

TEST_F(ModuleProgress, StartsAgainWithTheNextUpdate) {
  ASSERT_EQ(update("2.0.0"), 0);
  ASSERT_EQ(tuner_.progress(), 100u);

  ASSERT_EQ(tuner_.update("3.0.0", "/no/image", 0), -ENOENT);

  EXPECT_EQ(tuner_.progress(), 0u);
}

TEST_F(ModuleProgress, IsAnsweredLikeVersionAndTimeWhileAnotherThreadUpdates) {
  describeComponent("tunerfw", "stall_at_percent = 40\nexpected_time = 7");
  Child process([&] {
    std::thread([&] { update("2.0.0"); }).detach();
    waitForProgress(tuner_, 40);
    const bool answered = tuner_.progress() == 40 && tuner_.activeVersion() == "1.0.0" &&
                          tuner_.expectedTime() == 7 && tuner_.need("3.0") == 1;
    return answered ? 0 : 1;
  });

  EXPECT_EQ(process.wait(), 0);
}

TEST_F(ModuleProgress, CountsAGarbledFileAsNone) {
  for (const char* text : {"", "xyz\n", "999\n", "-10\n", " 57\n"}) {
    writeFile(std::string(kComponents) + "tunerfw.progress", text);

    EXPECT_EQ(tuner_.progress(), 0u) << text;
  }
}

TEST_F(ModuleProgress, CountsAGarbledFileAsNoneWhileAnUpdateRuns) {
  const std::string path = std::string(kComponents) + "tunerfw.progress";
  describeComponent("tunerfw", "stall_at_percent = 40");
  Child updating([&] { return update("2.0.0"); });
  waitForProgress(tuner_, 40);

  writeFile(path, "999\n");

  EXPECT_EQ(tuner_.progress(), 0u);
}

using ModuleExclusion = ModuleProgress;

TEST_F(ModuleExclusion, RefusesASecondUpdateOfTheSameComponent) {
  describeComponent("tunerfw", "stall_at_percent = 40");
  Child first([&] { return update("2.0.0"); });
  waitForProgress(tuner_, 40);
  describeComponent("tunerfw", "");

  EXPECT_EQ(update("3.0.0"), -EBUSY);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_EQ(tuner_.progress(), 40u);
  EXPECT_TRUE(exists(std::string(kComponents) + "tunerfw.flash.new"));

  first.kill();
  EXPECT_EQ(update("3.0.0"), 0);
  EXPECT_EQ(tuner_.activeVersion(), "3.0.0");
}

TEST_F(ModuleExclusion, RefusesASecondUpdateFromAnotherThread) {
  describeComponent("tunerfw", "stall_at_percent = 40");
  Child process([&] {
    std::thread([&] { update("2.0.0"); }).detach();
    waitForProgress(tuner_, 40);
    describeComponent("tunerfw", "");
    return -update("3.0.0");
  });

  EXPECT_EQ(process.wait(), EBUSY);
  EXPECT_EQ(update("3.0.0"), 0);
}

TEST_F(ModuleExclusion, IsNotInheritedByProgramsThatTheProcessStarts) {
  describeComponent("tunerfw", "stall_at_percent = 40");
  Child updating([&] { return update("2.0.0"); });
  waitForProgress(tuner_, 40);
  const std::string image = std::filesystem::canonical(kImagePath);
  int files = 0;

  const std::string process = "/proc/" + std::to_string(updating.id());
  for (const auto& entry : std::filesystem::directory_iterator(process + "/fd")) {
    const std::string target = std::filesystem::read_symlink(entry.path());
    if ((target + "/").rfind(kComponents, 0) != 0 && target != image) {
      continue;
    }
    const std::string information = readFile(process + "/fdinfo/" + entry.path().filename().string());
    const std::size_t flags = information.find("flags:") + 6;
    EXPECT_NE(std::stoul(information.substr(flags), nullptr, 8) & O_CLOEXEC, 0u) << target;
    ++files;
  }
  EXPECT_EQ(files, 4) << "progress, new flash, directory, image";
}

TEST_F(ModuleExclusion, LetsDifferentComponentsUpdateTogether) {
  describeComponent("tunerfw", "stall_at_percent = 40");
  Child first([&] { return update("2.0.0"); });
  waitForProgress(tuner_, 40);
  const LoadedModule wifi(modulePath("libwifi.so"));

  EXPECT_EQ(wifi.update("2.0.0", kImagePath, crcOf(newImage_)), 0);
  EXPECT_EQ(wifi.activeVersion(), "2.0.0");
}

TEST_F(ModuleExclusion, LeavesAWholeFlashWhenManyProcessesCompete) {
  constexpr int kProcesses = 8;
  constexpr int kRounds = 15;
  const std::uint32_t crc = crcOf(newImage_);
  std::vector<std::unique_ptr<Child>> competitors;

  for (int number = 0; number < kProcesses; ++number) {
    competitors.push_back(std::make_unique<Child>([&, number] {
      int completed = 0;
      for (int round = 0; round < kRounds; ++round) {
        const int result = tuner_.update("2." + std::to_string(number), kImagePath, crc);
        if (result != 0 && result != -EBUSY) {
          return 100;
        }
        completed += result == 0;
      }
      return completed;
    }));
  }

  int completed = 0;
  for (const auto& competitor : competitors) {
    const int result = competitor->wait();
    EXPECT_GE(result, 0);
    EXPECT_LE(result, kRounds);
    completed += result;
  }
  EXPECT_GE(completed, 1);
  EXPECT_TRUE(flashContent("tunerfw") == newImage_);
  EXPECT_EQ(tuner_.activeVersion().substr(0, 2), "2.");
  EXPECT_EQ(tuner_.progress(), 100u);
}

}  // namespace
