// SPDX-License-Identifier: Apache-2.0
// Downloads one package: from the configured server to its image file, continuing
// what an earlier download left. Runs to the end on the calling thread.
#ifndef FW_DOWNLOAD_DOWNLOAD_H
#define FW_DOWNLOAD_DOWNLOAD_H

#include <cstdint>
#include <functional>
#include <string>

#include "configuration.h"

namespace fwdownload {

// received and total in bytes of the image; total is negative when it is not known.
using Progress = std::function<void(std::int64_t received, std::int64_t total)>;
// A sentence for the log, about a download that goes on.
using Notice = std::function<void(const std::string& sentence)>;

struct Listener {
  Progress progress;
  Notice notice;
};

// Throws Failure; the image at its own name is then what it was before.
void download(const std::string& package, const Configuration& configuration, const Listener& listener);

}  // namespace fwdownload

#endif
