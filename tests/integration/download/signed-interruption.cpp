// SPDX-License-Identifier: Apache-2.0
// A signed download that is killed, or whose calls fail, at each call that changes
// something: what is in its place afterwards was checked, is whole, and has been noted.
#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <sstream>

#include "download-test.h"
#include "signed-package.h"

namespace {

namespace fs = std::filesystem;
using ::testing::AnyOf;
using ::testing::ElementsAre;

const std::string kNoted = "/var/lib/fw-update/minimum-versions/";
const std::string kRecord = "/tmp/record";
constexpr int kNotTraced = 125;
constexpr const char* kChanges[] = {"openat", "write",    "pwrite64", "ftruncate", "fsync", "fdatasync",
                                    "rename", "renameat", "unlinkat", "mkdir",     "flock", "fchmod"};
constexpr const char* kPlaces[] = {"/opt/usr/apps/appbinarymanager", "/var/lib/fw-update",
                                   "/run/fw-download"};

struct Call {
  std::string thread, name, subject, number;

  std::string text() const { return name + " " + subject + " " + number; }
};

class SignedInterruption : public DownloadTest {
 protected:
  void SetUp() override {
    DownloadTest::SetUp();
    layOut();
  }

  // An old image in its place, and a newer one on the server that makes older ones refused.
  void layOut() const {
    for (const std::string& place :
         {kPackages, std::string("/run/fw-download"), std::string("/var/lib/fw-update")}) {
      for (const auto& entry : exists(place) ? fs::directory_iterator(place) : fs::directory_iterator()) {
        if (entry.path().filename() != "emps") {
          fs::remove_all(entry.path());
        }
      }
    }
    writeFile("/usr/share/fw-update/keys/maker.pem", publicPem(testSigningKey("ed25519")));
    writeFile(kImage, "old");
    serveFile(kWifi + ".img", newer);
    configureStrictly("file:///tmp/served");
  }
  static std::string makeSigned(const std::string& version, const std::string& minimum) {
    return signedFile(makeImage(100000), testSigningKey("ed25519"),
                      {fwpackage::Kind::ExtensionPackage, kWifi, "", version, minimum});
  }

  // Runs the download; action at the call: "kill", or the number of an error.
  static ProgramResult downloadWith(const Call& call, const std::string& action) {
    return runProgram({{CALL_TRACER, kRecord, call.thread, call.name, call.subject, call.number, action, "--",
                        FW_DOWNLOAD_PROGRAM, kWifi},
                       "/",
                       0,
                       {"FW_UPDATE_LOG=none"}});
  }
  static bool acted() { return readFile(kRecord).find('!') != std::string::npos; }
  // Of a download that nobody interrupts.
  static std::vector<Call> calls() {
    const auto result = downloadWith({"-", "-", "-", "0"}, "kill");
    EXPECT_EQ(result.exitCode, 0) << result.error;
    std::vector<Call> found;
    std::istringstream record(readFile(kRecord));
    for (std::string line; std::getline(record, line);) {
      std::istringstream fields(line);
      Call call;
      std::getline(std::getline(std::getline(fields, call.thread, '\t'), call.name, '\t'), call.subject,
                   '\t');
      std::getline(fields, call.number);
      if (changesSomething(call)) {
        found.push_back(call);
      }
    }
    return found;
  }
  static bool changesSomething(const Call& call) {
    return std::any_of(std::begin(kChanges), std::end(kChanges),
                       [&](const char* name) { return call.name == name; }) &&
           std::any_of(std::begin(kPlaces), std::end(kPlaces),
                       [&](const char* place) { return call.subject.rfind(place, 0) == 0; });
  }

  // In the image's place is what was there, or all of the new one, which was noted then.
  void expectWhole() const {
    const std::string image = readFile(kImage);
    EXPECT_TRUE(image == "old" || image == newer) << image.size() << " bytes";
    if (exists(kNoted + kWifi)) {
      EXPECT_EQ(readFile(kNoted + kWifi), "1.10\n");
    } else {
      EXPECT_EQ(image, "old");
    }
  }
  // The next download needs nobody's help, and leaves nothing else.
  void expectNextOneWorks() const {
    const ProgramResult next = download();
    EXPECT_EQ(next.exitCode, 0) << next.error;
    EXPECT_TRUE(readFile(kImage) == newer);
    EXPECT_THAT(files(), ElementsAre(kWifi + ".img"));
    EXPECT_EQ(readFile(kNoted + kWifi), "1.10\n");
    std::vector<std::string> noted;
    for (const auto& entry : fs::directory_iterator(kNoted)) {
      noted.push_back(entry.path().filename());
    }
    std::sort(noted.begin(), noted.end());
    EXPECT_THAT(noted, ElementsAre(".lock", kWifi));
  }
  void expectOlderOneIsRefused() const {
    serveFile(kWifi + ".img", makeSigned("1.9", ""));
    expectFailure(download(), "too-old", "");
    EXPECT_TRUE(readFile(kImage) == newer);
  }

  const std::string newer = makeSigned("2.0", "1.10");
};

TEST_F(SignedInterruption, KilledAnywhereLeavesAWholeImageThatIsNoted) {
  const std::vector<Call> points = calls();
  ASSERT_GT(points.size(), 20U);
  RecordProperty("points", static_cast<int>(points.size()));
  for (const Call& point : points) {
    SCOPED_TRACE(point.text());
    layOut();

    const auto killed = downloadWith(point, "kill");

    ASSERT_NE(killed.exitCode, kNotTraced) << killed.error;
    EXPECT_TRUE(acted());
    expectWhole();
    expectNextOneWorks();
  }
  expectOlderOneIsRefused();
}

TEST_F(SignedInterruption, AFailingCallIsReportedOrMakesNoDifference) {
  const std::vector<Call> points = calls();
  for (const Call& point : points) {
    for (const int error : {EIO, ENOSPC}) {
      SCOPED_TRACE(point.text() + " " + std::to_string(error));
      layOut();

      const auto result = downloadWith(point, std::to_string(error));

      EXPECT_THAT(result.exitCode, AnyOf(0, 1)) << result.error;
      EXPECT_TRUE(acted());
      expectWhole();
      if (result.exitCode == 0) {
        EXPECT_TRUE(readFile(kImage) == newer);
      }
      expectNextOneWorks();
    }
  }
}

}  // namespace
