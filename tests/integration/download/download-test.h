// SPDX-License-Identifier: Apache-2.0
// What the tests of downloads share: the configuration, runs of fw-download, and what
// lies on the device afterwards.
#ifndef TESTS_INTEGRATION_DOWNLOAD_DOWNLOAD_TEST_H
#define TESTS_INTEGRATION_DOWNLOAD_DOWNLOAD_TEST_H

#include <gmock/gmock.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "device-environment.h"
#include "download-status.h"
#include "odd-server.h"
#include "running-program.h"
#include "web-server.h"

inline const std::string kPackages = "/opt/usr/apps/appbinarymanager/";
inline const std::string kWifi = "wifiempfw";
inline const std::string kImage = kPackages + "wifiempfw.img";
inline const std::string kPart = kImage + ".part";
inline const std::string kInfo = kPart + ".info";

class DownloadTest : public DeviceTest {
 protected:
  // url and further lines of the configuration file, which takes unsigned packages, and
  // those that come over http.
  static void configure(const std::string& url, const std::string& lines = "");
  // The same, but it takes neither.
  static void configureStrictly(const std::string& url, const std::string& lines = "");
  // Bytes that compress badly and differ with the seed.
  static std::string makeImage(std::size_t size, unsigned int seed = 1);
  // A file of a web server's directory, old enough for a reliable entity tag.
  static std::string serveFile(const std::string& name, const std::string& content);

  static RunningProgram start(const std::string& package = kWifi) {
    return RunningProgram({{FW_DOWNLOAD_PROGRAM, package}, "/", 0, {}});
  }
  // To the end, in the foreground.
  static ProgramResult download(const std::string& package = kWifi) { return start(package).wait(); }

  // Blocks until no process downloads the package any more.
  static void waitForEnd(const std::string& package = kWifi);
  // Blocks until the part has this size.
  static void waitForPart(std::int64_t size);
  // Until so many bytes of the part are known to be on the disk.
  static void waitForSynced(std::int64_t size);

  // The status must be a failure for this reason, with this in its sentence, and the
  // command's too.
  static void expectFailure(const ProgramResult& result, const std::string& reason,
                            const std::string& sentence);

  // Puts the packages' directory onto a file system of 2 MiB, until the test ends.
  void limitSpace();
  void TearDown() override;

  // What lies in the packages' directory, the mount directory left out.
  static std::vector<std::string> files();

 private:
  // Asks again whenever something changed in the packages' directory.
  static void waitUntil(const std::function<bool()>& happened);

  bool limited_ = false;
};

#endif
