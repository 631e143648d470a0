// SPDX-License-Identifier: Apache-2.0
// Tells how downloads go while the command waits for them, in the way that the output
// wants. One per command; used by one thread.
#ifndef FW_UPDATE_TOOL_DOWNLOAD_REPORTER_H
#define FW_UPDATE_TOOL_DOWNLOAD_REPORTER_H

#include <memory>
#include <optional>
#include <string>

#include "app-binary-manager.h"
#include "command-line.h"

namespace tool {

// Of the image; empty when its size is not known.
std::optional<unsigned int> percentOf(const appbinaryManager::DownloadProgress& progress);

class DownloadReporter {
 public:
  virtual ~DownloadReporter() = default;
  DownloadReporter() = default;
  DownloadReporter(const DownloadReporter&) = delete;
  DownloadReporter& operator=(const DownloadReporter&) = delete;

  virtual void start(const std::string&) {}
  virtual void tick(const std::string&, const appbinaryManager::DownloadProgress&) {}
  // Of one package. Leaves the terminal as it was.
  virtual void finish() {}
};

// The plain lines are one for every ten percent.
std::unique_ptr<DownloadReporter> makeDownloadReporter(const Options& options);

}  // namespace tool

#endif
