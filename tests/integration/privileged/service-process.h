// SPDX-License-Identifier: Apache-2.0
// The real privileged service as a child process, with its log in the test's
// hands. Ends with the object. One thread.
#ifndef TESTS_INTEGRATION_PRIVILEGED_SERVICE_PROCESS_H
#define TESTS_INTEGRATION_PRIVILEGED_SERVICE_PROCESS_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

struct ServiceStart {
  std::vector<std::string> arguments;
  // A listening socket that is handed over as the service manager does, or -1.
  int listener = -1;
  // The only capabilities that it may have, and no new privileges; otherwise the
  // test's own.
  std::optional<std::vector<int>> capabilities;
  // Further variables of its environment; the value "PID" stands for its process number.
  std::vector<std::pair<std::string, std::string>> environment = {};
  // How many descriptors it may have; 0: as many as the test.
  unsigned descriptors = 0;
  // How many sockets are handed over, all the same one.
  int handedOver = 1;
  // System calls that fail with EPERM for it.
  std::vector<int> deniedCalls = {};
};

class ServiceProcess {
 public:
  explicit ServiceProcess(const ServiceStart& start = {});
  ServiceProcess(const ServiceProcess&) = delete;
  ServiceProcess& operator=(const ServiceProcess&) = delete;
  ~ServiceProcess();

  pid_t pid() const { return pid_; }

  // Reads on until a line holds the text, and gives that line; "" when the
  // service ends, or says nothing of the kind for ten seconds.
  std::string waitForLine(const std::string& text);
  bool waitUntilServing() { return !waitForLine("privileged: serving root").empty(); }

  // Everything that it says from now on until it ends.
  std::string readToTheEnd();

  // Whether it still runs.
  bool isRunning() const;
  // False when it still runs after ten seconds.
  bool waitUntilEnded() const;
  void signal(int signal) const;
  // The exit code, or the negative number of the signal that ended it.
  int waitForEnd();

 private:
  void stop() const;

  pid_t pid_ = -1;
  int log_ = -1;
  std::string unread_;
};

#endif
