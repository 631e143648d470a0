// SPDX-License-Identifier: Apache-2.0
#include "app-binary-manager.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <exception>
#include <filesystem>

#include "deadline.h"
#include "dlog.h"
#include "file-descriptor.h"
#include "library-messages.h"
#include "module-names.h"
#include "platform-messages.h"
#include "program-start.h"
#include "system-error.h"

namespace {

namespace fs = std::filesystem;
using base::errnoText;

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

// The helper keeps nothing of its caller: no descriptors, no terminal, no signal settings, no
// directory, and nothing of its environment, which must not choose proxies or certificates.
int spawn(const std::string& helper, const std::string& package, int answer, pid_t& process) {
  base::ProgramStart start;
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    start.withNothingAt(standard);
  }
  start.with(answer, kAnswerFd).withNothingFrom(kAnswerFd + 1).in("/").apart();
  return start.run({helper, kAnswerArgument, package}, {"LC_ALL=C", "PATH=/usr/bin:/bin"}, process);
}

std::string readAnswer(int answer) {
  std::string text;
  char block[512];
  while (base::Deadline(kAnswerPatienceMs).waitToRead(answer) > 0) {
    const ssize_t length = read(answer, block, sizeof block);
    if (length <= 0) {
      break;
    }
    text.append(block, static_cast<std::size_t>(length));
  }
  return text;
}

// Empty when the download runs, otherwise why it does not.
std::string startDownload(const std::string& package) {
  if (!fwnames::isPackageName(package)) {
    return "The package identifier must be 1 to 127 letters and digits.";
  }
  const std::string helper = findHelper();
  if (helper.empty()) {
    return "The program fw-download is not installed.";
  }
  base::Pipe answer = base::makePipe();
  // Above the numbers that the helper's own descriptors take.
  base::FileDescriptor handedOver(answer.writeEnd ? fcntl(answer.writeEnd.get(), F_DUPFD_CLOEXEC, 10) : -1);
  if (!handedOver) {
    return errnoText(errno) + ".";
  }
  pid_t process = 0;
  if (const int error = spawn(helper, package, handedOver.get(), process); error != 0) {
    return helper + " cannot be run: " + errnoText(error) + ".";
  }
  answer.writeEnd.reset();
  handedOver.reset();
  const std::string text = readAnswer(answer.readEnd.get());
  if (text.empty()) {
    kill(process, SIGKILL);
  }
  base::waitForEnd(process);  // the process that was started answers and ends; what downloads is its child
  return text == kAccepted ? "" : text.empty() ? "fw-download gave no answer." : text;
}

// In the form of the library's own messages, so that whoever reads those sees it.
void logRefusal(const std::string& package, const std::string& reason) {
  __dlog_print(2, DLOG_ERROR_PRIORITY, "FWUPDATE", MESSAGE_PREFIX PLATFORM_MESSAGE_NOT_DOWNLOADED,
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
