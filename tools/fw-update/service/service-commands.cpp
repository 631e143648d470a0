// SPDX-License-Identifier: Apache-2.0
#include "service/service-commands.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <optional>
#include <vector>

#include "commands.h"
#include "outcomes.h"
#include "report.h"
#include "service/document.h"
#include "service/job-telling.h"
#include "service/service-library.h"
#include "terminal.h"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kRedraw{100};
constexpr std::chrono::seconds kLookAgain{1};  // should nothing be told
// A service that starts again goes on with its jobs.
constexpr std::chrono::seconds kPatience{10};

constexpr char kWithout[] =
    "Start it: systemctl start fw-updated. Without --service the command works by itself.";

// ---- What cannot be asked -----------------------------------------------------------

constexpr char kUnreachable[] = "The bus cannot be reached: ";
constexpr char kSeeBus[] = "See whether the system bus runs, or name another: --bus ADDRESS.";

constexpr struct {
  const char* error;  // its name on the bus; one that ends with a dot stands for all that begin so
  frame::Ending ending;
  const char* sentence;  // null: the service's own
  const char* remedy;
} kRefusals[] = {
    {kNoBus, ServiceOutcome::NoService, kUnreachable, kSeeBus},
    {"System.Error.", ServiceOutcome::NoService, kUnreachable, kSeeBus},
    {"org.freedesktop.DBus.Error.Disconnected", ServiceOutcome::NoService, kUnreachable, kSeeBus},
    {"org.freedesktop.DBus.Error.ServiceUnknown", ServiceOutcome::NoService,
     "No update service is on the bus.", kWithout},
    {"org.freedesktop.DBus.Error.NameHasNoOwner", ServiceOutcome::NoService,
     "No update service is on the bus.", kWithout},
    {"org.freedesktop.DBus.Error.Spawn.", ServiceOutcome::NoService, "The update service does not start: ",
     "See why: systemctl status fw-updated. Without --service the command works by itself."},
    {"org.freedesktop.DBus.Error.NoReply", ServiceOutcome::NoService, "The update service gave no answer.",
     "See what it does: systemctl status fw-updated."},
    {"org.freedesktop.DBus.Error.TimedOut", ServiceOutcome::NoService,
     "The update service does not start in time.", "See why: systemctl status fw-updated."},
    {"org.freedesktop.DBus.Error.Timeout", ServiceOutcome::NoService, "The update service gave no answer.",
     "See what it does: systemctl status fw-updated."},
    {"org.freedesktop.DBus.Error.AccessDenied", Outcome::NotPermitted,
     "The bus lets this user ask the service for nothing.", "Run the command as root."},
    {"org.fwupdate.Update1.Error.NotPermitted", Outcome::NotPermitted, nullptr,
     "Run the command as root, or as a member of that group."},
    {"org.fwupdate.Update1.Error.InvalidArgument", Outcome::Usage, nullptr, ""},
    {"org.fwupdate.Update1.Error.TooLate", ServiceOutcome::TooLate, nullptr, ""},
    {"org.fwupdate.Update1.Error.TooMany", Outcome::Unexpected, nullptr, "See them: fw-update jobs"},
};

bool isCalled(const std::string& name, const std::string& called) {
  return called.back() == '.' ? name.compare(0, called.size(), called) == 0 : name == called;
}

frame::Report refusalOf(const BusError& error) {
  for (const auto& row : kRefusals) {
    if (!isCalled(error.name(), row.error)) {
      continue;
    }
    std::string sentence = row.sentence == nullptr ? error.what() : row.sentence;
    if (sentence.back() == ' ') {
      sentence += std::string(error.what()) + ".";
    }
    return frame::Report(row.ending, sentence, row.remedy);
  }
  return frame::Report(Outcome::Unexpected, std::string("The update service refused: ") + error.what(), "");
}

bool isGone(const BusError& error) {
  return refusalOf(error).ending == frame::Ending(ServiceOutcome::NoService);
}

bool isNoJob(const BusError& error) {
  constexpr const char* kNames[] = {"org.freedesktop.DBus.Error.UnknownObject",
                                    "org.freedesktop.DBus.Error.UnknownMethod",
                                    "org.freedesktop.DBus.Error.UnknownInterface"};
  return std::any_of(std::begin(kNames), std::end(kNames),
                     [&error](const char* name) { return error.name() == name; });
}

// Of a job that somebody names.
template <typename Step>
auto forJob(unsigned int number, const Step& step) {
  try {
    return step();
  } catch (const BusError& error) {
    if (isNoJob(error)) {
      throw frame::Failure(Outcome::NotKnown, "There is no job " + std::to_string(number) + ".",
                           "See which there are: fw-update jobs");
    }
    throw;
  }
}

// ---- Jobs ---------------------------------------------------------------------------

constexpr struct {
  const char* kind;
  const char* command;
} kKinds[] = {
    {"update", "update"},       {"update-all", "update-all"},
    {"usb-apply", "usb apply"}, {"usb-estimate", "usb estimate"},
    {"download", "download"},
};

std::string commandOf(const std::string& kind) {
  const auto* const row = std::find_if(std::begin(kKinds), std::end(kKinds),
                                       [&kind](const auto& one) { return kind == one.kind; });
  return row == std::end(kKinds) ? "" : row->command;
}

// The service is somewhere else.
std::string absolute(const std::string& folder) {
  return folder.empty() ? "" : std::filesystem::absolute(folder).string();
}

// Empty: the command makes no job.
std::optional<JobRequest> requestFor(const Options& options, const std::string& command) {
  const auto* const row = std::find_if(std::begin(kKinds), std::end(kKinds),
                                       [&command](const auto& one) { return command == one.command; });
  if (row == std::end(kKinds)) {
    return std::nullopt;
  }
  const std::string module = options.modules.empty() ? options.module : options.modules.front();
  return JobRequest{row->kind, module, options.callerName, options.data, absolute(options.directory)};
}

// A job as it becomes, while the service may end and start again.
class FollowedJob {
 public:
  FollowedJob(ServiceClient& client, std::uint64_t number) : client_(client) { state_.number = number; }

  const JobState& state() const { return state_; }

  void look() {
    try {
      state_ = client_.job(state_.number);
      seen_ = Clock::now();
    } catch (const BusError& error) {
      if (!isGone(error) || Clock::now() - seen_ > kPatience) {
        throw;
      }
    }
  }
  bool isOld() const { return Clock::now() - seen_ > kLookAgain; }

 private:
  ServiceClient& client_;
  JobState state_;
  Clock::time_point seen_ = Clock::now();
};

void takeEvents(ServiceClient& client, std::uint64_t number, JobTelling& telling) {
  for (const std::string& line : client.takeEvents(number)) {
    takeLine(telling, line);
  }
}

JobState follow(ServiceClient& client, std::uint64_t number, JobTelling& telling) {
  FollowedJob job(client, number);
  for (job.look(); !job.state().isDone();) {
    takeEvents(client, number, telling);
    telling.tick(job.state());
    if (client.wait(kRedraw) || job.isOld()) {
      job.look();
    }
  }
  client.wait(std::chrono::milliseconds(0));  // what came before the answer
  takeEvents(client, number, telling);
  telling.finish();
  return job.state();
}

frame::Report endOf(const JobState& job) {
  return reportOf(parsedDocument(job.document), commandOf(job.kind));
}

// ---- Jobs as such -------------------------------------------------------------------

std::string orDash(const std::string& text) {
  return text.empty() ? "-" : text;
}

Json::Value toJson(const JobState& job) {
  Json::Value value;
  value["number"] = static_cast<Json::UInt64>(job.number);
  value["kind"] = job.kind;
  value["module"] = job.module;
  value["state"] = job.state;
  if (job.percent >= 0) {
    value["percent"] = job.percent;
  }
  value["message"] = job.sentence;
  if (job.isDone()) {
    value["outcome"] = job.outcome;
    value["exitCode"] = job.exitCode;
  }
  if (!job.remedy.empty()) {
    value["remedy"] = job.remedy;
  }
  return value;
}

std::string tableOf(const std::vector<JobState>& jobs) {
  std::vector<std::vector<std::string>> rows{{"NO", "KIND", "MODULE", "STATE", "PERCENT", "OUTCOME"}};
  for (const JobState& job : jobs) {
    rows.push_back({std::to_string(job.number), job.kind, orDash(job.module), job.state,
                    job.percent < 0 ? "-" : std::to_string(job.percent) + " %", orDash(job.outcome)});
  }
  return table(rows, terminalWidth(STDOUT_FILENO));
}

frame::Report listJobs(ServiceClient& client) {
  const std::vector<JobState> jobs = client.jobs();
  frame::Report report(Outcome::Ok, jobs.empty() ? "The update service has no jobs." : "");
  report.body = jobs.empty() ? "" : tableOf(jobs);
  report.details["jobs"] = Json::arrayValue;
  for (const JobState& job : jobs) {
    report.details["jobs"].append(toJson(job));
  }
  return report;
}

// The job at work; the next one, when there is none.
std::uint64_t jobAtWork(ServiceClient& client) {
  for (;;) {
    for (const JobState& job : client.jobs()) {
      if (job.isAtWork()) {
        return job.number;
      }
    }
    client.wait(kLookAgain);
  }
}

frame::Report watchJob(ServiceClient& client, const Options& options) {
  const auto telling = makeWatchTelling(options);
  const std::uint64_t number = options.number != 0 ? options.number : jobAtWork(client);
  return forJob(options.number, [&] { return endOf(follow(client, number, *telling)); });
}

frame::Report cancelJob(ServiceClient& client, const Options& options) {
  forJob(options.number, [&] {
    client.cancel(options.number);
    return true;
  });
  frame::Report report(Outcome::Ok, "Job " + std::to_string(options.number) + " is cancelled.");
  report.details["job"] = options.number;
  return report;
}

// ---- Questions ----------------------------------------------------------------------

std::vector<std::string> argumentsOf(const Options& options, const std::string& command) {
  std::vector<std::string> words;
  const auto add = [&words](const char* name, const std::string& value) {
    if (!value.empty()) {
      words.push_back(std::string(name) + "=" + value);
    }
  };
  if (command == "pending") {
    add("--caller", options.callerName);
    add("--data", options.data);
  } else if (command == "history") {
    add("--module", options.module);
    add("--since", options.since);
    if (options.failedOnly) {
      words.emplace_back("--failed");
    }
  } else if (command == "history show") {
    words.push_back(std::to_string(options.number));
  }
  return words;
}

frame::Report carryOut(ServiceClient& client, const Options& options, const std::string& command) {
  if (command == "jobs") {
    return listJobs(client);
  }
  if (command == "watch") {
    return watchJob(client, options);
  }
  if (command == "cancel") {
    return cancelJob(client, options);
  }
  if (const auto request = requestFor(options, command)) {
    const auto telling = makeJobTelling(options, request->kind);
    return endOf(follow(client, client.add(*request), *telling));
  }
  return reportOf(parsedDocument(client.query(command, argumentsOf(options, command))), command);
}

}  // namespace

frame::Report runThroughService(const Options& options, const std::string& command) {
  try {
    return carryOut(*openService(options.bus), options, command);
  } catch (const BusError& error) {
    return refusalOf(error);
  } catch (const Json::Exception&) {  // values of other kinds than documents have
    return frame::Report(Outcome::Unexpected, "The update service gave an answer that cannot be understood.",
                         "See whether it is of this version: fw-updated --version");
  }
}

}  // namespace tool
