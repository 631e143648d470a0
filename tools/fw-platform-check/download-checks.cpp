// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <system_error>

#include "app-binary-manager.h"
#include "checks.h"
#include "deadline.h"
#include "device-paths.h"

namespace conformance {
namespace {

using appbinaryManager::DownloadProgress;
using appbinaryManager::DownloadState;

constexpr double kAtOnceSeconds = 5;
constexpr unsigned int kLookAgainUs = 50000;
constexpr char kUnsigned[] = "unsigned";  // the reason of the failure

namespace fs = std::filesystem;

bool requestDownload(const std::string& name) {
  return appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, name);
}

// Empty when the answer makes sense.
std::string oddityOf(const DownloadProgress& progress) {
  if (progress.state < DownloadState::NotKnown || progress.state > DownloadState::BrokenOff) {
    return "there is no state " + std::to_string(static_cast<int>(progress.state));
  }
  if (progress.received < 0 || progress.total < -1) {
    return "the sizes are " + std::to_string(progress.received) + " and " + std::to_string(progress.total);
  }
  if (progress.state == DownloadState::Failed && progress.message.empty()) {
    return "a failure has no message";
  }
  return "";
}

// What was put there is not left for anybody to use.
bool isTakenAway(const std::string& image) {
  std::error_code ignored;
  return fs::remove(image, ignored);
}

bool canTell() {
  return &appbinaryManager::ABM_GetDownloadProgress != nullptr;
}

// How the download ended; one that has not before the check would be given up, or of which nothing
// is told, is not known.
DownloadProgress endOfDownload(const std::string& name, const std::string& image) {
  const base::Deadline deadline(setFacts().patienceSeconds * 1000 - static_cast<int>(kAtOnceSeconds * 100));
  DownloadProgress progress;
  do {
    usleep(kLookAgainUs);
    progress = canTell() ? appbinaryManager::ABM_GetDownloadProgress(name) : DownloadProgress();
  } while ((progress.state == DownloadState::Running || !canTell()) && !fs::exists(image) &&
           deadline.leftMs() > 0);
  return progress;
}

Finding judgeUnsigned(const std::string& name, const DownloadProgress& end, const std::string& image) {
  if (isTakenAway(image)) {
    return broken(name +
                  " was put into its place, though it is said to carry no signature; the file was removed");
  }
  if (end.state == DownloadState::Done) {
    return broken(name + " is said to be in its place, though it is said to carry no signature");
  }
  if (end.state == DownloadState::Failed && end.reason == kUnsigned) {
    return kept();
  }
  return notChecked(name + " was not taken, but the reason is not \"" + kUnsigned +
                    "\": " + (end.message.empty() ? "the platform tells none" : end.message));
}

}  // namespace

// Whether the request is accepted depends on where the set gets its packages.
Finding downloadReturnsAtOnce() {
  const auto begin = std::chrono::steady_clock::now();
  requestDownload("platformcheckemp");
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  return took.count() < kAtOnceSeconds ? kept()
                                       : broken("the call took " + std::to_string(took.count()) + " s");
}

Finding downloadRefusesBadName() {
  for (const char* name : {"", "../platformcheck", "a b"}) {
    if (requestDownload(name)) {
      return broken("\"" + std::string(name) + "\" was accepted");
    }
  }
  return kept();
}

Finding downloadTellsWhatItKnows() {
  if (&appbinaryManager::ABM_GetDownloadProgress == nullptr) {
    return notChecked("the platform has no ABM_GetDownloadProgress, which it may leave out");
  }
  for (const char* name : {"", "../platformcheck", "platformcheckneveraskedforemp"}) {
    if (appbinaryManager::ABM_GetDownloadProgress(name).state != DownloadState::NotKnown) {
      return broken("something is known of \"" + std::string(name) + "\", which nobody asked for");
    }
  }
  requestDownload("platformcheckemp");
  const auto begin = std::chrono::steady_clock::now();
  const std::string oddity = oddityOf(appbinaryManager::ABM_GetDownloadProgress("platformcheckemp"));
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  if (!oddity.empty()) {
    return broken(oddity);
  }
  return took.count() < kAtOnceSeconds ? kept()
                                       : broken("the call took " + std::to_string(took.count()) + " s");
}

// Only the set's own server can offer such a package.
Finding downloadRefusesUnsigned() {
  const std::string& name = setFacts().unsignedPackage;
  if (name.empty()) {
    return notChecked(
        "have the set's server offer a package without a signature, and name it: --unsigned-package ID");
  }
  const std::string image = fwpaths::kPackageImages + name + ".img";
  if (fs::exists(image)) {
    return notChecked(image + " is there already; remove it, or name another package");
  }
  if (!requestDownload(name)) {
    return notChecked("the download of " + name + " was not begun; see the log");
  }
  return judgeUnsigned(name, endOfDownload(name, image), image);
}

}  // namespace conformance
