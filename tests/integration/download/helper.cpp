// SPDX-License-Identifier: Apache-2.0
// How the platform library starts fw-download, with programs that take its place: the
// library looks for it from where it lies itself.
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "app-binary-manager.h"
#include "download-test.h"

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

using Request = bool (*)(void (*)(const std::string&, int, void*), void*, const std::string&);

const std::string kHelper = "/tmp/platform/libexec/fw-update/fw-download";
const std::string kLibrary = "/tmp/platform/lib/libfw-platform.so";

class DownloadHelper : public DownloadTest {
 protected:
  // A copy of the platform library, beside a helper that is this script of bash.
  void SetUp() override {
    DownloadTest::SetUp();
    fs::create_directories("/tmp/platform/lib");
    fs::copy_file(FW_PLATFORM_LIBRARY, kLibrary);
    Dl_info found = {};
    ASSERT_NE(dladdr(reinterpret_cast<const void*>(&appbinaryManager::ABM_DownloadAppBinary), &found), 0);
    void* const library = dlopen(kLibrary.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    request_ = reinterpret_cast<Request>(dlsym(library, found.dli_sname));
    ASSERT_NE(request_, nullptr);
  }
  static void install(const std::string& script) {
    writeFile(kHelper, "#!/bin/bash\n" + script);
    fs::permissions(kHelper, fs::perms::owner_all);
  }
  // Whether the set of signals behind this word has the signal.
  static bool contains(const std::string& status, const std::string& word, int signal) {
    const std::size_t at = status.find(word);
    EXPECT_NE(at, std::string::npos);
    const unsigned long long set = std::strtoull(status.c_str() + at + word.size(), nullptr, 16);
    return ((set >> static_cast<unsigned int>(signal - 1)) & 1U) != 0;
  }
  bool request() const { return request_(nullptr, nullptr, kWifi); }

 private:
  Request request_ = nullptr;
};

TEST_F(DownloadHelper, IsAskedForThePackage) {
  install("echo \"$0 $*\" >/tmp/asked; echo accepted >&3");

  EXPECT_TRUE(request());

  EXPECT_THAT(readFile("/tmp/asked"), HasSubstr(" --answer-on=3 wifiempfw\n"));
}

// Field 6 of the status is the session.
TEST_F(DownloadHelper, HasASessionOfItsOwn) {
  install("read -r status </proc/$$/stat; set -- $status; echo \"$$ $6\" >/tmp/session; echo accepted >&3");

  EXPECT_TRUE(request());

  long process = 0, session = 0;
  ASSERT_EQ(std::sscanf(readFile("/tmp/session").c_str(), "%ld %ld", &process, &session), 2);
  EXPECT_EQ(session, process);
  EXPECT_NE(session, getsid(0));
}

TEST_F(DownloadHelper, KeepsNothingOfItsCaller) {
  install(
      "pwd >/tmp/seen; export -p >>/tmp/seen; grep Sig[BI] /proc/$$/status >>/tmp/seen;"
      "readlink /proc/$$/fd/[012] >>/tmp/seen; echo /proc/$$/fd/* >>/tmp/seen; echo accepted >&3");
  ASSERT_EQ(setenv("https_proxy", "http://evil/", 1), 0);
  signal(SIGUSR1, SIG_IGN);
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  sigprocmask(SIG_BLOCK, &blocked, nullptr);
  const int open = fcntl(STDERR_FILENO, F_DUPFD, 50);  // stays open when another program is run

  EXPECT_TRUE(request());

  close(open);
  const std::string seen = readFile("/tmp/seen");
  EXPECT_EQ(seen.substr(0, 2), "/\n");
  EXPECT_THAT(seen, Not(HasSubstr("evil")));
  EXPECT_THAT(seen, HasSubstr("PATH=\"/usr/bin:/bin\""));
  EXPECT_FALSE(contains(seen, "SigBlk:", SIGUSR2)) << seen;
  EXPECT_FALSE(contains(seen, "SigIgn:", SIGUSR1)) << seen;
  EXPECT_THAT(seen, HasSubstr("/dev/null\n/dev/null\n/dev/null\n"));
  EXPECT_THAT(seen, Not(HasSubstr("/fd/" + std::to_string(open) + " "))) << seen;
}

TEST_F(DownloadHelper, RefusesWithAnythingButTheWord) {
  for (const char* answer : {"There is no room.", "accepted", "accepted\nand more"}) {
    install("printf '" + std::string(answer) + "' >&3");

    EXPECT_FALSE(request()) << answer;
  }
}

TEST_F(DownloadHelper, ThatSaysNothingIsARefusal) {
  install("exit 0");

  EXPECT_FALSE(request());
}

TEST_F(DownloadHelper, ThatCannotBeRunIsARefusal) {
  writeFile(kHelper, "no program");
  fs::permissions(kHelper, fs::perms::owner_all);
  EXPECT_FALSE(request());

  fs::permissions(kHelper, fs::perms::owner_read);
  EXPECT_FALSE(request());

  fs::remove(kHelper);
  EXPECT_FALSE(request());
}

// It would end by itself some time later.
TEST_F(DownloadHelper, ThatHangsIsKilled) {
  ASSERT_EQ(mkfifo("/tmp/never", 0600), 0);
  install("exec 9<>/tmp/never; read -r -t 60 -u 9; echo >/tmp/survived");

  EXPECT_FALSE(request());

  EXPECT_FALSE(exists("/tmp/survived"));
}

// What answers is a process, and what downloads is its child.
TEST_F(DownloadHelper, LeavesNoProcessToBeCollected) {
  install("echo accepted >&3");

  EXPECT_TRUE(request());

  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

}  // namespace
