// SPDX-License-Identifier: Apache-2.0
#include <exception>
#include <optional>

#include "app-binary-manager.h"
#include "download-status.h"
#include "module-names.h"

namespace appbinaryManager {
namespace {

DownloadState stateOf(const std::optional<fwplatform::DownloadStatus>& status, bool running) {
  if (status && status->state == fwplatform::DownloadState::Done) {
    return DownloadState::Done;
  }
  if (status && status->state == fwplatform::DownloadState::Failed) {
    return DownloadState::Failed;
  }
  if (running) {
    return DownloadState::Running;
  }
  return status ? DownloadState::BrokenOff : DownloadState::NotKnown;
}

DownloadProgress progressOf(const std::string& package) {
  // In this order: a status that is read after the end is the last one.
  const bool running = fwplatform::isDownloadRunning(package);
  const auto status = fwplatform::readDownloadStatus(package);
  DownloadProgress progress;
  progress.state = stateOf(status, running);
  if (status) {
    progress.received = status->received;
    progress.total = status->total;
    progress.reason = status->reason;
    progress.message = status->message;
    progress.remedy = status->remedy;
  }
  return progress;
}

}  // namespace

DownloadProgress ABM_GetDownloadProgress(const std::string& appId) {
  try {
    return fwnames::isPackageName(appId) ? progressOf(appId) : DownloadProgress();
  } catch (const std::exception&) {
    return {};  // no memory: nothing is known
  }
}

}  // namespace appbinaryManager
