// SPDX-License-Identifier: Apache-2.0
// A system bus of the test's own, with a stand-in for systemd-logind on it. The
// environment variable that names the bus is set for the test and its children.
// Both are real processes, killed at the end. For the thread that runs the test.
#ifndef TESTS_SUPPORT_SYSTEM_BUS_H
#define TESTS_SUPPORT_SYSTEM_BUS_H

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

struct sd_bus;

// A program that dies with the test. Throws std::runtime_error when it cannot be
// started.
class HelperProgram {
 public:
  // readyText: waited for on its standard output; empty: not waited.
  HelperProgram(const std::vector<std::string>& words, const std::string& readyText);
  ~HelperProgram();
  HelperProgram(const HelperProgram&) = delete;
  HelperProgram& operator=(const HelperProgram&) = delete;
  void signal(int number) const;

 private:
  pid_t id_ = -1;
};

class SystemBus {
 public:
  SystemBus();
  ~SystemBus();
  SystemBus(const SystemBus&) = delete;
  SystemBus& operator=(const SystemBus&) = delete;

  sd_bus* connection() const { return connection_; }
  void waitForOwner(const std::string& name) const;

 private:
  std::unique_ptr<HelperProgram> daemon_;
  sd_bus* connection_ = nullptr;
};

struct Inhibitor {
  std::string what;
  std::string who;
  std::string why;
  std::string mode;
};

// What logind offers, or one whose Inhibit only gives an error, or a text for its descriptor.
class LogindStandIn {
 public:
  enum class Answers { Inhibitors, AccessDenied, Text };
  explicit LogindStandIn(const SystemBus& bus, Answers answers = Answers::Inhibitors);

  std::vector<Inhibitor> inhibitors() const;
  // Asks again and again; false when it was not so within ten seconds.
  bool waitForInhibitors(std::size_t count) const;
  // While stopped it answers nothing.
  void stop() const { process_->signal(19); }
  void resume() const { process_->signal(18); }

 private:
  void answerInhibit(const char* signature, const char* code) const;

  const SystemBus& bus_;
  std::unique_ptr<HelperProgram> process_;
};

#endif
