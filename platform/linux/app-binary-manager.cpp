#include "app-binary-manager.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <exception>
#include <filesystem>

#include "dlog.h"
#include "errno-text.h"
#include "privileged/package-name.h"
#include "unique-fd.h"

namespace {

namespace fs = std::filesystem;
using fwplatform::errnoText;
using fwplatform::UniqueFd;

// The helper answers before it downloads anything; this is for one that hangs.
constexpr int kAnswerPatienceMs = 5000;
constexpr int kAnswerFd = 3;
constexpr char kAnswerArgument[] = "--answer-on=3";
// As the helper answers. Anything else is a sentence that says why it refuses.
constexpr char kAccepted[] = "accepted\n";

// The helper of this very build or installation, seen from this library.
std::string findHelper() {
  Dl_info self = {};
  if (dladdr(reinterpret_cast<const void*>(&findHelper), &self) == 0) {
    return "";
  }
  const fs::path library = fs::canonical(self.dli_fname).parent_path();
  for (const char* relative : {FW_DOWNLOAD_INSTALLED, "../libexec/fw-update/fw-download"}) {
    const fs::path helper = (library / relative).lexically_normal();
    if (access(helper.c_str(), X_OK) == 0) {
      return helper;
    }
  }
  return "";
}

class SpawnSettings {
 public:
  SpawnSettings() {
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;
  ~SpawnSettings() {
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
  }

  posix_spawn_file_actions_t actions = {};
  posix_spawnattr_t attributes = {};
};

// The helper keeps nothing of its caller: no descriptors, no terminal, no signal
// settings, no directory.
void separateFromCaller(SpawnSettings& settings, int answer) {
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    posix_spawn_file_actions_addopen(&settings.actions, standard, "/dev/null", O_RDWR, 0);
  }
  posix_spawn_file_actions_adddup2(&settings.actions, answer, kAnswerFd);
  posix_spawn_file_actions_addclosefrom_np(&settings.actions, kAnswerFd + 1);
  posix_spawn_file_actions_addchdir_np(&settings.actions, "/");
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&settings.attributes, &none);
  posix_spawnattr_setsigdefault(&settings.attributes, &all);
  posix_spawnattr_setflags(&settings.attributes,
                           POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
}

// Nothing of the caller's environment: it must not choose proxies or certificates.
int spawn(const std::string& helper, const std::string& package, int answer, pid_t& pid) {
  SpawnSettings settings;
  separateFromCaller(settings, answer);
  char* const arguments[] = {const_cast<char*>("fw-download"), const_cast<char*>(kAnswerArgument),
                             const_cast<char*>(package.c_str()), nullptr};
  char* const environment[] = {const_cast<char*>("LC_ALL=C"), const_cast<char*>("PATH=/usr/bin:/bin"),
                               nullptr};
  return posix_spawn(&pid, helper.c_str(), &settings.actions, &settings.attributes, arguments, environment);
}

std::string readAnswer(int answer) {
  std::string text;
  char block[512];
  for (;;) {
    pollfd ready = {answer, POLLIN, 0};
    const int count = poll(&ready, 1, kAnswerPatienceMs);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    const ssize_t length = count > 0 ? read(answer, block, sizeof block) : 0;
    if (length <= 0) {
      return text;
    }
    text.append(block, static_cast<std::size_t>(length));
  }
}

// The process that was started answers and ends; what downloads is its child.
void reap(pid_t pid) {
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

// Empty when the download runs, otherwise why it does not.
std::string startDownload(const std::string& package) {
  if (!fwplatform::isPackageName(package)) {
    return "The package identifier must be 1 to 127 letters and digits.";
  }
  const std::string helper = findHelper();
  if (helper.empty()) {
    return "The program fw-download is not installed.";
  }
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    return errnoText(errno) + ".";
  }
  const UniqueFd answer(ends[0]);
  UniqueFd other(ends[1]);
  // Above the numbers that the helper's own descriptors take.
  UniqueFd handedOver(fcntl(other.get(), F_DUPFD_CLOEXEC, 10));
  pid_t pid = 0;
  if (const int error = handedOver ? spawn(helper, package, handedOver.get(), pid) : errno; error != 0) {
    return helper + " cannot be run: " + errnoText(error) + ".";
  }
  other.reset();
  handedOver.reset();
  const std::string text = readAnswer(answer.get());
  if (text.empty()) {
    kill(pid, SIGKILL);
  }
  reap(pid);
  return text == kAccepted ? "" : text.empty() ? "fw-download gave no answer." : text;
}

// In the form of the library's own messages, so that whoever reads those sees it.
void logRefusal(const std::string& package, const std::string& reason) {
  __dlog_print(2, DLOG_ERROR_PRIORITY, "FWUPDATE", "%s: %s(%d) > %s is not downloaded: %s",
               "app-binary-manager.cpp", "ABM_DownloadAppBinary", __LINE__, package.c_str(), reason.c_str());
}

}  // namespace

namespace appbinaryManager {

bool ABM_DownloadAppBinary(void (*)(const std::string&, int, void*), void*, const std::string& appId) {
  try {
    const std::string refusal = startDownload(appId);
    if (refusal.empty()) {
      return true;
    }
    logRefusal(appId, refusal);
  } catch (const std::exception& error) {
    logRefusal(appId, error.what());
  }
  return false;
}

}  // namespace appbinaryManager
