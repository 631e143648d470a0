// Downloads that are broken off in the middle, from a real web server.
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <thread>

#include "download-test.h"

namespace {

using ::testing::ElementsAre;

constexpr std::size_t kSize = 6U * 1024 * 1024;

class Interruption : public DownloadTest {};

std::int64_t sizeOf(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 ? status.st_size : -1;
}

TEST_F(Interruption, TenKillsAtRandomPointsLeaveTheImageByteForByte) {
  const std::string image = makeImage(kSize);
  // Slow enough that the kill comes before the end on a busy machine, too.
  const WebServer server({serveFile(kWifi + ".img", image), 1024, ""});
  configure(server.url());
  const unsigned int seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  std::vector<std::int64_t> points(10);
  for (auto& point : points) {
    point = static_cast<std::int64_t>(random() % (kSize / 2)) + 1;
  }
  std::sort(points.begin(), points.end());

  std::vector<std::string> ranges;
  for (const std::int64_t point : points) {
    RunningProgram program = start();
    waitForPart(point);
    program.kill(SIGKILL);
    const ProgramResult killed = program.wait();
    EXPECT_EQ(killed.signal, SIGKILL) << killed.error;
    EXPECT_FALSE(exists(kImage));
    EXPECT_FALSE(fwplatform::IsDownloadRunning(kWifi));
    ranges.push_back("bytes=" + std::to_string(sizeOf(kPart)) + "-");
  }
  const ProgramResult last = download();

  EXPECT_EQ(last.exitCode, 0) << last.error;
  EXPECT_TRUE(readFile(kImage) == image);
  EXPECT_THAT(files(), ElementsAre(kWifi + ".img"));
  // Each download asked for what was missing, and got nothing else.
  EXPECT_TRUE(server.waitForLog("200 -"));
  for (const std::string& range : ranges) {
    EXPECT_TRUE(server.waitForLog("206 " + range)) << range;
  }
}

TEST_F(Interruption, AFileThatChangedOnTheServerComesFromItsBeginning) {
  const WebServer server({serveFile(kWifi + ".img", makeImage(kSize)), 1024, ""});
  configure(server.url());
  RunningProgram program = start();
  waitForPart(1000000);
  program.kill(SIGKILL);
  program.wait();
  const std::int64_t there = sizeOf(kPart);
  const std::string other = makeImage(kSize, 2);
  serveFile(kWifi + ".img", other);

  const ProgramResult again = download();

  EXPECT_EQ(again.exitCode, 0) << again.error;
  EXPECT_TRUE(readFile(kImage) == other);
  EXPECT_TRUE(server.waitForLog("200 bytes=" + std::to_string(there) + "-"));
}

// All bytes are there, but the image did not get its name.
TEST_F(Interruption, AWholePartIsAskedForItsLastByte) {
  const std::string image = makeImage(100000);
  const WebServer server({serveFile(kWifi + ".img", image), 16, ""});
  configure(server.url());
  RunningProgram program = start();
  waitForPart(1);
  program.kill(SIGKILL);
  program.wait();
  writeFile(kPart, image);

  EXPECT_EQ(download().exitCode, 0);

  EXPECT_TRUE(readFile(kImage) == image);
  EXPECT_TRUE(server.waitForLog("206 bytes=99999-"));
}

TEST_F(Interruption, AfterARestartOnlyWhatWasOnTheDiskIsUsed) {
  const WebServer server({serveFile(kWifi + ".img", makeImage(kSize)), 1024, ""});
  configure(server.url());
  RunningProgram program = start();
  waitForPart(5000000);
  program.kill(SIGKILL);
  program.wait();
  std::string info = readFile(kInfo);
  const std::size_t boot = info.find("\"boot\" : \"");
  ASSERT_NE(boot, std::string::npos) << info;
  info[boot + 10] = 'x';  // as another start of the system has it
  const std::size_t number = info.find("\"synced\" : ");
  ASSERT_NE(number, std::string::npos) << info;
  const long synced = std::atol(info.c_str() + number + 11);
  ASSERT_GE(synced, 4L * 1024 * 1024);
  ASSERT_LT(synced, sizeOf(kPart));
  writeFile(kInfo, info);

  ASSERT_EQ(download().exitCode, 0);

  EXPECT_TRUE(server.waitForLog("206 bytes=" + std::to_string(synced) + "-"));
}

}  // namespace
