// SPDX-License-Identifier: Apache-2.0
// Where packages come from and what a download may take, from
// /etc/fw-update/download.conf. A plain value, read once for each download.
#ifndef FW_DOWNLOAD_CONFIGURATION_H
#define FW_DOWNLOAD_CONFIGURATION_H

#include <cstdint>
#include <string>
#include <vector>

namespace fwdownload {

inline constexpr char kConfigurationFile[] = "/etc/fw-update/download.conf";

struct Configuration {
  std::string url;   // of the directory that holds the images, with a "/" at its end
  std::string user;  // what the url had of these; it has them no more
  std::string password;
  std::string caFile;                      // empty: the certificates of the system
  std::vector<std::string> redirectHosts;  // beside the url's own
  std::int64_t maximumSize = std::int64_t{512} * 1024 * 1024;
  long maximumRedirects = 3;
  long connectTimeoutSeconds = 20;
  long stallTimeoutSeconds = 30;
  bool allowUnsigned = false;        // packages without a signature
  bool allowInsecure = false;        // connections that anybody on the way can change
  std::int64_t minimumSpeed = 1024;  // bytes a second, over the time above
  long maximumRetries = 3;           // of a download that stalled or was too slow
};

// Both throw Failure.
Configuration readConfiguration();
Configuration parseConfiguration(const std::string& text);

}  // namespace fwdownload

#endif
