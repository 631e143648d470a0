// SPDX-License-Identifier: Apache-2.0
// How the download of a package is going, as any process can read it: a small file
// in /run/fw-download, and a lock that the downloading process holds to its end.
// Written by the one process that holds the lock; read by anyone. Any thread.
#ifndef PLATFORM_LINUX_DOWNLOAD_STATUS_H
#define PLATFORM_LINUX_DOWNLOAD_STATUS_H

#include <cstdint>
#include <optional>
#include <string>

#include "file-descriptor.h"

namespace fwplatform {

inline constexpr char kDownloadStatusDirectory[] = "/run/fw-download";
inline constexpr std::int64_t kUnknownSize = -1;

enum class DownloadState { Running, Done, Failed };

struct DownloadStatus {
  DownloadState state = DownloadState::Running;
  std::int64_t received = 0;          // bytes of the image that are there
  std::int64_t total = kUnknownSize;  // bytes of the whole image
  std::string reason;                 // of a failure: one word for programs
  std::string message;                // of a failure: one sentence for people
  std::string remedy;                 // of a failure: what to do about it; may be empty

  std::optional<unsigned int> percent() const;
};

// The writer's side.

// Gives the status directory, made when it is missing. 0 or an errno value.
int openDownloadStatusDirectory(base::FileDescriptor& directory);
// Held as long as the descriptor is open, in this process or in one forked from it.
// EAGAIN when another process holds it; otherwise 0 or an errno value.
int lockDownload(int statusDirectory, const std::string& name, base::FileDescriptor& lock);
// Replaces the status at once. 0 or an errno value.
int writeDownloadStatus(int statusDirectory, const std::string& name, const DownloadStatus& status);

// The reader's side.

// Empty when there is none, or none that can be read.
std::optional<DownloadStatus> readDownloadStatus(const std::string& name);
// Whether a process is downloading the package. Ask first and read the status then:
// a status that still says "running" afterwards belongs to a process that was killed.
bool isDownloadRunning(const std::string& name);

}  // namespace fwplatform

#endif
