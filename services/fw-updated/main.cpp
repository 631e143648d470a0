// SPDX-License-Identifier: Apache-2.0
// fw-updated: the update service. Takes its name on the bus and serves until it is asked to end.
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <climits>
#include <exception>
#include <iostream>
#include <memory>
#include <string>

#include "configuration.h"
#include "event-loop.h"
#include "frame/program.h"
#include "intake.h"
#include "jobs.h"
#include "manager.h"
#include "occasions.h"
#include "taking.h"
#include "tool-query.h"
#include "trace-access.h"

namespace {

enum class Outcome { Ended, Failed, Usage, WrongEntries };

constexpr frame::OutcomeInfo kOutcomes[] = {
    {"ok", 0, "ended by SIGTERM or SIGINT; no wrong entries", frame::Tone::Answer},
    {"failed", 1, "could not serve", frame::Tone::Failure},
    {"usage", 2, "usage", frame::Tone::Failure},
    {"wrong-entries", 3, "wrong entries", frame::Tone::Failure},
};

constexpr const frame::OutcomeInfo& infoOf(Outcome outcome) {
  return kOutcomes[static_cast<std::size_t>(outcome)];
}

struct Options {
  bool json = false;
  std::string bus;
  std::string keyFile = "/usr/share/fw-update/package.key";
  std::string program;
  bool checkConfiguration = false;
  std::string configuration = updated::kConfigurationFile;
};

using Option = frame::Option<Options>;

constexpr Option kOptions[] = {
    {"--bus ADDRESS", &Options::bus, "The bus to serve on; default: the system bus"},
    {"--key-file FILE", &Options::keyFile, "Of USB packages; has a default"},
    {"--fw-update PROGRAM", &Options::program, "What does the work; default: the one beside"},
    {"--check-config", &Options::checkConfiguration, "Only say what is wrong in FILE"},
    {"FILE", &Options::configuration, "The configuration; has a default"},
};

// The one that was built, or is installed, with this program.
std::string commandBeside() {
  char self[PATH_MAX] = {};
  const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
  const std::string path(self, length > 0 ? static_cast<std::size_t>(length) : 0);
  const std::string directory = path.substr(0, path.rfind('/'));
  for (const char* const place : {"/fw-update", "/../bin/fw-update"}) {
    if (access((directory + place).c_str(), X_OK) == 0) {
      return directory + place;
    }
  }
  return "fw-update";
}

std::unique_ptr<sdbus::IConnection> connectTo(const std::string& bus) {
  return bus.empty() ? sdbus::createSystemBusConnection() : sdbus::createSessionBusConnectionWithAddress(bus);
}

// What is wrong is named, and counts for nothing.
updated::Configuration configured() {
  const updated::ConfigurationRead read = updated::readConfiguration();
  for (const auto& problem : read.problems) {
    std::cerr << textOf(problem, updated::kConfigurationFile) << "\n";
  }
  return read.configuration;
}

void serve(const Options& options) {
  updated::letMembersTrace();
  updated::EventLoop loop;
  const std::unique_ptr<sdbus::IConnection> connection = connectTo(options.bus);
  const updated::Tool tool{options.program.empty() ? commandBeside() : options.program, options.keyFile};
  updated::Access access(*connection, updated::kBusName);
  updated::ToolQueries queries(loop, tool.program);
  updated::Jobs jobs(loop, *connection, tool, queries);
  updated::Intake intake(loop);
  updated::Manager manager(*connection, access, jobs, queries, intake);
  updated::Occasions occasions(loop, *connection, configured(), options.keyFile, jobs, queries,
                               [&manager](const auto& modules) { manager.announce(modules); });
  manager.whenConsented([&occasions](auto job, const auto& said) { occasions.answer(job, said); });
  jobs.restore();
  connection->requestName(updated::kBusName);
  updated::removeLeftovers(jobs.folders());  // now that no other service is at work
  loop.serve(*connection);
  sd_notify(0, "READY=1");
  occasions.begin();
  loop.run();
  sd_notify(0, "STOPPING=1");
}

frame::Report checkConfiguration(const std::string& path) {
  if (access(path.c_str(), F_OK) != 0) {
    return frame::Report(Outcome::Ended, "There is no " + path + ": nothing is done unasked.");
  }
  const auto problems = updated::readConfiguration(path).problems;
  frame::Report report =
      problems.empty() ? frame::Report(Outcome::Ended, path + " has no wrong entries.")
                       : frame::Report(Outcome::WrongEntries,
                                       std::to_string(problems.size()) +
                                           (problems.size() == 1 ? " entry is wrong" : " entries are wrong") +
                                           (problems.size() == 1 ? ", and counts for nothing."
                                                                 : ", and count for nothing."),
                                       "Correct the lines that are named.");
  report.details["problems"] = Json::Value(Json::arrayValue);
  for (const auto& problem : problems) {
    const std::string text = textOf(problem, path);
    report.body += text + "\n";
    Json::Value& entry = report.details["problems"].append(Json::Value());
    entry["line"] = problem.line;
    entry["message"] = problem.sentence;
  }
  return report;
}

frame::Report run(const Options& options) {
  if (options.checkConfiguration) {
    return checkConfiguration(options.configuration);
  }
  try {
    serve(options);
  } catch (const sdbus::Error& error) {
    return frame::Report(Outcome::Failed, "The bus cannot be served: " + error.getMessage() + ".",
                         "See whether the bus runs, and whether another fw-updated is on it.");
  } catch (const std::exception& error) {
    return frame::Report(Outcome::Failed, std::string("The service cannot go on: ") + error.what() + ".");
  }
  return frame::Report(Outcome::Ended);
}

constexpr frame::Command<Options> kCommands[] = {
    {{"", "", "fw-updated --bus \"$DBUS_SESSION_BUS_ADDRESS\""}, {kOptions}, run},
};

constexpr frame::Program<Options> kProgram = {
    {"fw-updated", "Updates firmware for others, who ask on D-Bus.", "", kOutcomes, Outcome::Usage,
     Outcome::Failed},
    {},
    kCommands,
};

}  // namespace

int main(int argc, char** argv) {
  return frame::perform(kProgram, argc, argv);
}
