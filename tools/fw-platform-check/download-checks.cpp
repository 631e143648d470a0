// SPDX-License-Identifier: Apache-2.0
#include <chrono>
#include <string>

#include "app-binary-manager.h"
#include "checks.h"

namespace conformance {
namespace {

using appbinaryManager::DownloadProgress;
using appbinaryManager::DownloadState;

constexpr double kAtOnceSeconds = 5;

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

}  // namespace conformance
