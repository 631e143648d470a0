// SPDX-License-Identifier: Apache-2.0
// Downloads of extension packages.
#ifndef PLATFORM_APP_BINARY_MANAGER_H
#define PLATFORM_APP_BINARY_MANAGER_H

#include <cstdint>
#include <string>

namespace appbinaryManager {

// Asks for the download of the package appId to
// "/opt/usr/apps/appbinarymanager/" + appId + ".img" and returns at once: true
// when the request was accepted; a download of the same package that is under way
// serves it too. callback may be null; it is never called, because nothing in the
// caller's process waits for the download.
__attribute__((visibility("default"))) bool ABM_DownloadAppBinary(void (*callback)(const std::string&, int,
                                                                                   void*),
                                                                  void* userData, const std::string& appId);

enum class DownloadState {
  NotKnown,   // the platform cannot tell
  Running,    // asked for and not over
  Done,       // the whole image is in its place
  Failed,     // message says why
  BrokenOff,  // over, and nobody could say why: a process was killed, the set lost power
};

struct DownloadProgress {
  DownloadState state = DownloadState::NotKnown;
  std::int64_t received = 0;  // bytes of the image that are there
  std::int64_t total = -1;    // bytes of the whole image; -1 as long as that is not known
  std::string reason;         // of a failure: one word for programs
  std::string message;        // of a failure: one sentence for people
  std::string remedy;         // of a failure: what to do about it; may be empty
};

// How the download of the package appId that was asked for last is going, by whatever
// process. Returns at once. The library does not call it; tools that wait for downloads
// do. A platform need not have it: its address is null then, which means the same as
// NotKnown.
__attribute__((visibility("default"), weak)) DownloadProgress ABM_GetDownloadProgress(
    const std::string& appId);

}  // namespace appbinaryManager

#endif
