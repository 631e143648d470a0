// SPDX-License-Identifier: Apache-2.0
// A web server that sends what a test has written, byte for byte: one answer for each
// connection, in order. A thread of the test's serves; the test asks afterwards.
#ifndef TESTS_INTEGRATION_DOWNLOAD_ODD_SERVER_H
#define TESTS_INTEGRATION_DOWNLOAD_ODD_SERVER_H

#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct OddAnswer {
  std::string bytes;
  bool hangsUp = true;  // false: stays connected until the client goes
  // Above 0: what comes after the first so many bytes comes a byte at a time, every tenth
  // of a second.
  std::size_t dripsAfter = 0;
};

class OddServer {
 public:
  explicit OddServer(std::vector<OddAnswer> answers);
  ~OddServer();
  OddServer(const OddServer&) = delete;
  OddServer& operator=(const OddServer&) = delete;

  std::string url() const;
  // The requests so far, each with its headers.
  std::vector<std::string> requests();

 private:
  void serve();
  void answer(int connection, const OddAnswer& answer);
  static bool sendAll(int connection, const std::string& bytes);

  std::vector<OddAnswer> answers_;
  int listener_ = -1;
  int port_ = 0;
  std::mutex mutex_;
  std::vector<std::string> requests_;
  std::thread thread_;
};

// "HTTP/1.1 200 OK" with these header lines and this body.
std::string httpAnswer(const std::string& status, const std::vector<std::string>& headers,
                       const std::string& body);

#endif
