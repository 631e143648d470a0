// SPDX-License-Identifier: Apache-2.0
// What a download does on the device, and how the platform library starts it.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>

#include "app-binary-manager.h"
#include "download-test.h"

namespace {

namespace fs = std::filesystem;
using appbinaryManager::ABM_DownloadAppBinary;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class Download : public DownloadTest {};

TEST_F(Download, RequestIsAcceptedAndTheImageComes) {
  const std::string image = makeImage(300000);
  configure("file://" + serveFile(kWifi + ".img", image));

  EXPECT_TRUE(ABM_DownloadAppBinary(nullptr, nullptr, kWifi));

  waitForEnd();
  EXPECT_TRUE(readFile(kImage) == image);
  EXPECT_THAT(files(), ElementsAre(kWifi + ".img"));
  EXPECT_EQ(fwplatform::readDownloadStatus(kWifi)->percent(), 100U);
}

TEST_F(Download, OutlivesItsCaller) {
  const std::string image = makeImage(1000000);
  const WebServer server({serveFile(kWifi + ".img", image), 1024, ""});
  configure(server.url());

  const pid_t caller = fork();
  if (caller == 0) {
    _exit(ABM_DownloadAppBinary(nullptr, nullptr, kWifi) ? 0 : 1);
  }
  int status = -1;
  waitpid(caller, &status, 0);

  EXPECT_EQ(status, 0);
  EXPECT_FALSE(exists(kImage));
  waitForEnd();
  EXPECT_TRUE(readFile(kImage) == image);
}

TEST_F(Download, KeepsNothingOfItsCallerOpen) {
  OddServer server({{"", false}});
  configure(server.url(), "stall_timeout_s = 2\nmax_retries = 0");
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);  // without close-on-exec

  ASSERT_TRUE(ABM_DownloadAppBinary(nullptr, nullptr, kWifi));
  close(ends[1]);
  char byte;
  const ssize_t atEnd = read(ends[0], &byte, 1);

  EXPECT_EQ(atEnd, 0);
  EXPECT_TRUE(fwplatform::isDownloadRunning(kWifi));
  close(ends[0]);
  waitForEnd();
}

TEST_F(Download, ASecondRequestIsServedByTheDownloadThatRuns) {
  const WebServer server({serveFile(kWifi + ".img", makeImage(1000000)), 1024, ""});
  configure(server.url());
  ASSERT_TRUE(ABM_DownloadAppBinary(nullptr, nullptr, kWifi));

  EXPECT_TRUE(ABM_DownloadAppBinary(nullptr, nullptr, kWifi));

  waitForEnd();
  EXPECT_TRUE(server.waitForLog("200 -"));
  EXPECT_EQ(server.log().size(), 1U);
}

TEST_F(Download, ASecondOneByHandLeavesTheFirstAlone) {
  const std::string image = makeImage(1000000);
  const WebServer server({serveFile(kWifi + ".img", image), 1024, ""});
  configure(server.url());
  RunningProgram first = start();
  waitForPart(1);

  const ProgramResult second = download();

  EXPECT_EQ(second.exitCode, 1);
  EXPECT_EQ(second.error, "fw-download: wifiempfw: Another process downloads it already.\n");
  EXPECT_FALSE(exists(kImage));
  EXPECT_EQ(first.wait().exitCode, 0);
  EXPECT_TRUE(readFile(kImage) == image);
  EXPECT_TRUE(server.waitForLog("200 -"));
  EXPECT_EQ(server.log().size(), 1U);
}

TEST_F(Download, TakesNoProxyFromTheEnvironment) {
  const std::string image = makeImage(1000);
  OddServer proxy({{httpAnswer("200 OK", {"Content-Length: 5"}, "proxy")}});
  OddServer server({{httpAnswer("200 OK", {"Content-Length: 1000"}, image)}});
  configure(server.url());

  const auto result = runProgram(
      {{FW_DOWNLOAD_PROGRAM, kWifi}, "/", 0, {"http_proxy=" + proxy.url(), "ALL_PROXY=" + proxy.url()}});

  EXPECT_EQ(result.exitCode, 0) << result.error;
  EXPECT_THAT(proxy.requests(), IsEmpty());
  EXPECT_TRUE(readFile(kImage) == image);
}

TEST_F(Download, RefusesIdentifiersThatAreNoNames) {
  configure("file:///tmp/served");

  for (const std::string name :
       {"", "../wifiempfw", "wifi-empfw", "wifiempfw.img", "wifi empfw", "w\xC3\xA9mp"}) {
    EXPECT_FALSE(ABM_DownloadAppBinary(nullptr, nullptr, name)) << name;
  }
  EXPECT_FALSE(ABM_DownloadAppBinary(nullptr, nullptr, std::string(128, 'a')));
  EXPECT_FALSE(ABM_DownloadAppBinary(nullptr, nullptr, std::string("wifi\0mp", 7)));

  EXPECT_FALSE(exists(fwplatform::kDownloadStatusDirectory));
}

TEST_F(Download, IsRefusedWithoutAConfiguration) {
  EXPECT_FALSE(ABM_DownloadAppBinary(nullptr, nullptr, kWifi));
}

TEST_F(Download, TheOldImageStaysUntilTheNewOneIsWhole) {
  const std::string image = makeImage(1000000);
  const WebServer server({serveFile(kWifi + ".img", image), 1024, ""});
  configure(server.url());
  writeFile(kImage, "old");

  RunningProgram program({{FW_DOWNLOAD_PROGRAM, kWifi}, "/", 0, {}});
  program.readLine();  // it says nothing and ends

  EXPECT_TRUE(readFile(kImage) == image);
}

TEST_F(Download, AFailedDownloadLeavesTheOldImage) {
  configure("file:///tmp/served");
  writeFile(kImage, "old");

  expectFailure(download(), "not-found", "cannot be read");

  EXPECT_EQ(readFile(kImage), "old");
  EXPECT_THAT(files(), ElementsAre(kWifi + ".img"));
}

TEST_F(Download, HasNoStatusWhenItsFileIsUnreadable) {
  for (const std::string& text : {std::string("{\"state\": "), std::string(2000, '[')}) {
    writeFile("/run/fw-download/" + kWifi + ".json", text);

    EXPECT_FALSE(fwplatform::readDownloadStatus(kWifi).has_value()) << text.substr(0, 9);
  }
}

TEST_F(Download, FollowsNoLinks) {
  const std::string image = makeImage(1000);
  configure("file://" + serveFile(kWifi + ".img", image));
  for (const std::string& link : {kImage, kPart, kInfo}) {
    writeFile("/tmp/precious", "precious");
    fs::create_symlink("/tmp/precious", link);

    EXPECT_EQ(download().exitCode, 0) << link;

    EXPECT_EQ(readFile("/tmp/precious"), "precious") << link;
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(kImage))) << link;
    EXPECT_THAT(files(), ElementsAre(kWifi + ".img"));
    fs::remove(kImage);
  }
}

TEST_F(Download, WritesIntoNoFileThatHasASecondName) {
  configure("file://" + serveFile(kWifi + ".img", makeImage(1000)));
  writeFile(kPackages + "other", "precious");
  fs::create_hard_link(kPackages + "other", kPart);

  EXPECT_EQ(download().exitCode, 0);

  EXPECT_EQ(readFile(kPackages + "other"), "precious");
}

TEST_F(Download, AnImageThatIsADirectoryIsNotReplaced) {
  configure("file://" + serveFile(kWifi + ".img", makeImage(1000)));
  fs::create_directory(kImage);

  expectFailure(download(), "file-system", "cannot be replaced: Is a directory");

  EXPECT_THAT(files(), ElementsAre(kWifi + ".img"));
}

TEST_F(Download, SaysThatThereIsNoRoomBeforeItWrites) {
  limitSpace();
  configure("file://" + serveFile(kWifi + ".img", makeImage(4U * 1024 * 1024)));

  expectFailure(download(), "no-space", "There is no room for the package: it needs 4194304 bytes");

  EXPECT_THAT(files(), IsEmpty());
}

class Https : public DownloadTest {
 protected:
  // An authority of the test's own, and a certificate of it for the server.
  static void makeCertificates(const std::string& name) {
    const std::string script =
        "cd /tmp && openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -days 2 -subj "
        "/CN=test "
        "-addext basicConstraints=critical,CA:TRUE && "
        "openssl req -newkey rsa:2048 -nodes -keyout server.key -out server.csr -subj /CN=server && "
        "echo subjectAltName=" +
        name +
        " >extensions && "
        "openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -extfile "
        "extensions "
        "-out server.pem && cat server.key >>server.pem";
    const auto made = runProgram({{"sh", "-c", script}, "/", 0, {}});
    ASSERT_EQ(made.exitCode, 0) << made.error;
  }
};

TEST_F(Https, TakesACertificateOfTheConfiguredAuthority) {
  makeCertificates("IP:127.0.0.1");
  const std::string image = makeImage(300000);
  const WebServer server({serveFile(kWifi + ".img", image), 0, "/tmp/server.pem"});
  configure(server.url(), "ca_file = /tmp/ca.pem");

  const auto result = download();

  EXPECT_EQ(result.exitCode, 0) << result.error;
  EXPECT_TRUE(readFile(kImage) == image);
}

TEST_F(Https, RefusesACertificateOfAnotherAuthority) {
  makeCertificates("IP:127.0.0.1");
  const WebServer server({serveFile(kWifi + ".img", makeImage(1000)), 0, "/tmp/server.pem"});
  configure(server.url());

  expectFailure(download(), "certificate", "The server's certificate is not trusted");

  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(Https, RefusesACertificateForAnotherServer) {
  makeCertificates("IP:127.0.0.2");
  const WebServer server({serveFile(kWifi + ".img", makeImage(1000)), 0, "/tmp/server.pem"});
  configure(server.url(), "ca_file = /tmp/ca.pem");

  expectFailure(download(), "certificate", "The server's certificate is not trusted");

  EXPECT_THAT(files(), IsEmpty());
}

class ServedByOpenssl : public Https {
 protected:
  // Gives out files that are whole answers, headers included.
  void serve(const std::string& answer, const std::vector<std::string>& options = {},
             const std::vector<std::string>& environment = {}) {
    makeCertificates("IP:127.0.0.1");
    writeFile("/tmp/served/" + kWifi + ".img", answer);
    std::vector<std::string> command = {"openssl",     "s_server",        "-accept",
                                        "127.0.0.1:0", "-cert",           "/tmp/server.pem",
                                        "-key",        "/tmp/server.key", "-HTTP"};
    command.insert(command.end(), options.begin(), options.end());
    server_ = std::make_unique<RunningProgram>(ProgramStart{command, "/tmp/served", 0, environment});
    std::string line;
    while (line.rfind("ACCEPT ", 0) != 0) {
      ASSERT_TRUE(server_->isRunning());
      line = server_->readLine();
    }
    configure("https://" + line.substr(7), "ca_file = /tmp/ca.pem");
  }

 private:
  std::unique_ptr<RunningProgram> server_;
};

// A client whose library would allow it.
TEST_F(ServedByOpenssl, AnOldTlsIsRefused) {
  writeFile("/tmp/openssl.cnf",
            "openssl_conf = all\n[all]\nssl_conf = ssl\n[ssl]\nsystem_default = weak\n"
            "[weak]\nMinProtocol = TLSv1\nCipherString = DEFAULT@SECLEVEL=0\n");
  serve(httpAnswer("200 OK", {"Content-Length: 1000"}, makeImage(1000)),
        {"-tls1_1", "-cipher", "DEFAULT@SECLEVEL=0"}, {"OPENSSL_CONF=/tmp/openssl.cnf"});

  const auto result = runProgram({{FW_DOWNLOAD_PROGRAM, kWifi}, "/", 0, {"OPENSSL_CONF=/tmp/openssl.cnf"}});

  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.error, HasSubstr("No secure connection to the server could be made"));
  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(ServedByOpenssl, ARedirectToHttpIsRefused) {
  OddServer open({{httpAnswer("200 OK", {"Content-Length: 5"}, "bytes")}});
  serve(httpAnswer("302 Found", {"Location: " + open.url() + "x", "Content-Length: 0"}, ""));

  expectFailure(download(), "redirect", "which is not as secure as https://127.0.0.1:");

  EXPECT_THAT(open.requests(), IsEmpty());
}

}  // namespace
