// SPDX-License-Identifier: Apache-2.0
// A real web server on the loopback interface, for the files of one directory: it knows
// ranges and entity tags. Ends with the object. For the thread that runs the test.
#ifndef TESTS_INTEGRATION_DOWNLOAD_WEB_SERVER_H
#define TESTS_INTEGRATION_DOWNLOAD_WEB_SERVER_H

#include <memory>
#include <string>
#include <vector>

#include "running-program.h"

struct WebServerStart {
  std::string directory;
  unsigned int kibPerSecond = 0;  // 0: as fast as it goes
  std::string certificate;        // with its key in the same file; empty: no TLS
};

class WebServer {
 public:
  explicit WebServer(const WebServerStart& start);

  std::string url() const { return url_; }
  // One line for each request: its status, its Range header or "-". The server writes
  // it some time after the answer.
  std::vector<std::string> log() const;
  // Blocks until there is such a line; false when none comes for ten seconds.
  bool waitForLog(const std::string& line) const;

 private:
  bool tryPort(const WebServerStart& start, int port);

  std::string directory_;  // its configuration and log
  std::string url_;
  std::unique_ptr<RunningProgram> program_;
};

#endif
