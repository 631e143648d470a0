// SPDX-License-Identifier: Apache-2.0
// A fleet's server of the test's own, on 127.0.0.1. A real process, ended with the object. For the thread
// that runs the test.
#ifndef TESTS_FLEET_LAB_H
#define TESTS_FLEET_LAB_H

#include <json/value.h>
#include <sys/types.h>

#include <string>
#include <vector>

class Lab {
 public:
  // options: of lab-server. Throws std::runtime_error when it does not come up.
  explicit Lab(const std::vector<std::string>& options = {});
  ~Lab();
  Lab(const Lab&) = delete;
  Lab& operator=(const Lab&) = delete;

  const std::string& address() const { return address_; }
  // Of https; empty without a certificate.
  const std::string& protectedAddress() const { return protectedAddress_; }
  // order: JSON, with ' in the place of "
  void steer(const std::string& what, const std::string& order) const;
  Json::Value state() const;

  // Of what the set did: "download none", "closed success" and so on.
  std::vector<std::string> history(const std::string& action = "1") const;
  std::string stateOf(const std::string& action = "1") const;
  std::vector<std::string> messages(const std::string& action = "1") const;  // of the last entry
  int requests(const std::string& what) const;
  // Requests that had it: "range", "match", "token" or "certificate".
  int countOf(const std::string& header) const;

 private:
  pid_t process_ = -1;
  std::string address_;
  std::string protectedAddress_;
};

#endif
