// SPDX-License-Identifier: Apache-2.0
// What commands ask of the update service. The library that does so is loaded by those commands
// alone: others neither load nor link what speaks on a bus. One thread.
#ifndef FW_UPDATE_TOOL_SERVICE_CLIENT_H
#define FW_UPDATE_TOOL_SERVICE_CLIENT_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace tool {

// As the service tells it.
struct JobState {
  std::uint64_t number = 0;
  std::string kind;
  std::string module;
  std::string state;
  int percent = -1;
  double elapsedSeconds = 0;
  unsigned int expectedSeconds = 0;
  std::string outcome;
  int exitCode = -1;
  std::string sentence;
  std::string remedy;
  std::string document;

  bool isDone() const { return state == "done"; }
  bool isAtWork() const { return !isDone() && state != "queued" && state != "asking"; }
};

struct JobRequest {
  std::string kind;
  std::string module;
  std::string caller;
  std::string data;
  std::string folder;
};

// Nothing was answered, or a refusal was. It is thrown by one library and caught by another.
class [[gnu::visibility("default")]] BusError : public std::runtime_error {
 public:
  BusError(const std::string& name, const std::string& sentence) : runtime_error(sentence), name_(name) {}
  const std::string& name() const {
    return name_;
  }

 private:
  std::string name_;
};

// Names of errors that are not the bus's own.
inline constexpr char kNoBus[] = "org.fwupdate.Update1.Error.NoBus";

// Each throws BusError.
class ServiceClient {
 public:
  ServiceClient() = default;
  virtual ~ServiceClient() = default;
  ServiceClient(const ServiceClient&) = delete;
  ServiceClient& operator=(const ServiceClient&) = delete;

  // The document of a command that asks.
  virtual std::string query(const std::string& command, const std::vector<std::string>& arguments) = 0;
  // The number of a new job. What it tells from its beginning is kept for takeEvents.
  virtual std::uint64_t add(const JobRequest& request) = 0;
  virtual JobState job(std::uint64_t number) = 0;
  // Oldest first.
  virtual std::vector<JobState> jobs() = 0;
  virtual void cancel(std::uint64_t number) = 0;

  // Until something is told, of whatever job. False when nothing was.
  virtual bool wait(std::chrono::milliseconds most) = 0;
  // What a job has told since the last call; what others told is forgotten.
  virtual std::vector<std::string> takeEvents(std::uint64_t number) = 0;
};

// The one function of the library. bus: its address; empty: the system bus.
inline constexpr char kMakeServiceClient[] = "fwMakeServiceClient";
using MakeServiceClient = void(const std::string& bus, std::unique_ptr<ServiceClient>& client);

}  // namespace tool

#endif
