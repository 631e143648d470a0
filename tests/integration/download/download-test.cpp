// SPDX-License-Identifier: Apache-2.0
#include "download-test.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <random>

#include "file-descriptor.h"

namespace fs = std::filesystem;

namespace {

constexpr int kPatienceMs = 10000;

}  // namespace

void DownloadTest::configure(const std::string& url, const std::string& lines) {
  configureStrictly(url, "allow_unsigned = true\nallow_insecure = true\n" + lines);
}

void DownloadTest::configureStrictly(const std::string& url, const std::string& lines) {
  writeFile("/etc/fw-update/download.conf", "url = " + url + "\n" + lines + "\n");
}

std::string DownloadTest::makeImage(std::size_t size, unsigned int seed) {
  std::mt19937 random(seed);
  std::string image(size, '\0');
  std::generate(image.begin(), image.end(), [&] { return static_cast<char>(random() & 0xFFU); });
  return image;
}

std::string DownloadTest::serveFile(const std::string& name, const std::string& content) {
  const std::string directory = "/tmp/served";
  writeFile(directory + "/" + name, content);
  fs::last_write_time(directory + "/" + name, fs::file_time_type::clock::now() - std::chrono::hours(1));
  return directory;
}

void DownloadTest::waitForEnd(const std::string& package) {
  const std::string path = std::string(fwplatform::kDownloadStatusDirectory) + "/" + package + ".lock";
  const base::FileDescriptor lock(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct flock whole = {};
  whole.l_type = F_RDLCK;
  whole.l_whence = SEEK_SET;
  ASSERT_TRUE(lock) << path;
  ASSERT_EQ(fcntl(lock.get(), F_OFD_SETLKW, &whole), 0);
}

void DownloadTest::waitForPart(std::int64_t size) {
  waitUntil([size] {
    struct stat status = {};
    return stat(kPart.c_str(), &status) == 0 && status.st_size >= size;
  });
}

void DownloadTest::waitForSynced(std::int64_t size) {
  waitUntil([size] {
    const std::string info = exists(kInfo) ? readFile(kInfo) : "";
    const std::size_t number = info.find("\"synced\" : ");
    return number != std::string::npos && std::atoll(info.c_str() + number + 11) >= size;
  });
}

void DownloadTest::waitUntil(const std::function<bool()>& happened) {
  const base::FileDescriptor changes(inotify_init1(IN_CLOEXEC));
  inotify_add_watch(changes.get(), kPackages.c_str(), IN_MODIFY | IN_CREATE | IN_MOVED_TO);
  while (!happened()) {
    ASSERT_FALSE(exists(kImage)) << "the download ended";
    pollfd changed = {changes.get(), POLLIN, 0};
    ASSERT_EQ(poll(&changed, 1, kPatienceMs), 1) << "nothing comes any more";
    char events[4096];
    ASSERT_GT(read(changes.get(), events, sizeof events), 0);
  }
}

void DownloadTest::expectFailure(const ProgramResult& result, const std::string& reason,
                                 const std::string& sentence) {
  const auto status = fwplatform::readDownloadStatus(kWifi);
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.error, ::testing::HasSubstr(sentence));
  ASSERT_TRUE(status);
  EXPECT_EQ(status->state, fwplatform::DownloadState::Failed);
  EXPECT_EQ(status->reason, reason);
  EXPECT_THAT(status->message, ::testing::HasSubstr(sentence));
}

void DownloadTest::limitSpace() {
  ASSERT_EQ(mount("tmpfs", kPackages.c_str(), "tmpfs", 0, "size=2m"), 0);
  limited_ = true;
}

void DownloadTest::TearDown() {
  if (limited_) {
    umount2(kPackages.c_str(), MNT_DETACH);
  }
}

std::vector<std::string> DownloadTest::files() {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(kPackages)) {
    if (entry.path().filename() != "emps") {
      names.push_back(entry.path().filename());
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}
