// SPDX-License-Identifier: Apache-2.0
// A job as its clients see it: what is asked for, how far it is and how it ended. Plain
// values and functions.
#ifndef FW_UPDATED_JOB_H
#define FW_UPDATED_JOB_H

#include <json/value.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace updated {

enum class Kind { Update, UpdateAll, UsbApply, UsbEstimate, Download };
enum class State { Asking, Queued, Checking, WaitingForLock, Updating, Verifying, Done };

inline constexpr char kWaitsForConsent[] = "It waits for consent.";

// Their names on the bus.
const char* nameOf(Kind kind);
const char* nameOf(State state);
std::optional<Kind> kindOf(const std::string& name);

struct Request {
  Kind kind = Kind::Update;
  std::string module;
  std::string caller;
  std::string data;
  std::string folder;  // empty: the USB drive
  uid_t user = 0;
  std::string client;         // its unique name on the bus; empty: the service itself
  bool isHandedOver = false;  // the client brought what it is updated from; a folder is for this job alone
};

struct Job {
  using Clock = std::chrono::steady_clock;

  std::uint64_t number = 0;
  Request request;
  State state = State::Queued;
  std::string module;  // the one at work
  int percent = -1;
  unsigned int expectedSeconds = 0;
  bool isOverdue = false;
  std::string outcome;
  int exitCode = -1;
  std::string sentence;
  std::string remedy;
  std::string versionBefore;
  std::string versionAfter;
  std::string document;
  std::optional<Clock::time_point> began;  // work on it
  double beganAt = 0;                      // the same, in seconds since 1970
  std::optional<Clock::time_point> ended;

  bool isDone() const { return state == State::Done; }
  double elapsedSeconds() const;
};

// How the job stands after an event of fw-update, or its result.
void take(Job& job, const Json::Value& event);

// The job is over, in the service's own words.
void end(Job& job, const std::string& outcome, int exitCode, const std::string& sentence,
         const std::string& remedy);

// The properties on the bus that differ.
std::vector<std::string> changes(const Job& before, const Job& after);

}  // namespace updated

#endif
