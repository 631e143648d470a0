// SPDX-License-Identifier: Apache-2.0
// Downloads that are broken off in the middle, from a real web server.
#include <fcntl.h>
#include <json/json.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "download-test.h"

namespace {

using ::testing::ElementsAre;
namespace fs = std::filesystem;

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
    EXPECT_FALSE(fwplatform::isDownloadRunning(kWifi));
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

TEST_F(Interruption, AnUnreadableNoteAboutThePartMeansTheBeginning) {
  const std::string image = makeImage(100000);
  const WebServer server({serveFile(kWifi + ".img", image), 0, ""});
  configure(server.url());
  for (const std::string& note : {std::string("{\"url\": "), std::string(2000, '[')}) {
    SCOPED_TRACE(note.substr(0, 9));
    writeFile(kPart, image.substr(0, 50000));
    writeFile(kInfo, note);

    const ProgramResult result = download();

    EXPECT_EQ(result.exitCode, 0) << result.error;
    EXPECT_TRUE(readFile(kImage) == image);
  }
}

TEST_F(Interruption, AfterARestartOnlyWhatWasOnTheDiskIsUsed) {
  const WebServer server({serveFile(kWifi + ".img", makeImage(kSize)), 1024, ""});
  configure(server.url());
  RunningProgram program = start();
  waitForSynced(std::int64_t{4} * 1024 * 1024);
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

// All of it but the end is zeros, which take no room.
TEST_F(Interruption, APartOfMoreThanFourGibibytesIsContinued) {
  constexpr std::int64_t kThere = std::int64_t{1} << 32U;
  constexpr timespec kServed[2] = {{1577836800, 0}, {1577836800, 0}};
  const std::string directory = serveFile(kWifi + ".img", "");
  const std::string file = directory + "/" + kWifi + ".img";
  fs::resize_file(file, kThere);
  std::ofstream(file, std::ios::app) << "the end";
  ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), kServed, 0), 0);
  const WebServer server({directory, 0, ""});
  configure(server.url(), "max_size_mib = 5000");
  Json::Value info;
  info["url"] = server.url() + kWifi + ".img";
  info["validator"] = "Wed, 01 Jan 2020 00:00:00 GMT";
  info["total"] = Json::Int64(kThere + 7);
  info["synced"] = Json::Int64(kThere);
  info["boot"] = "an earlier one";
  writeFile(kInfo, Json::writeString(Json::StreamWriterBuilder(), info));
  writeFile(kPart, "");
  fs::resize_file(kPart, kThere);

  const ProgramResult result = download();

  EXPECT_EQ(result.exitCode, 0) << result.error;
  EXPECT_TRUE(server.waitForLog("206 bytes=4294967296-"));
  EXPECT_EQ(sizeOf(kImage), kThere + 7);
  std::ifstream image(kImage);
  image.seekg(kThere);
  std::string end;
  std::getline(image, end);
  EXPECT_EQ(end, "the end");
}

}  // namespace
