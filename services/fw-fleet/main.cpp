// SPDX-License-Identifier: Apache-2.0
// fw-fleet: has a set updated by a fleet's server. Asks it until it is ended, which it may be anywhere.
#include <curl/curl.h>
#include <grp.h>
#include <malloc.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <exception>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "agent.h"
#include "artifact-check.h"
#include "chosen-source.h"
#include "fleet-bus.h"
#include "fleet-client.h"
#include "frame/program.h"
#include "os-release.h"
#include "printable-text.h"
#include "status.h"
#include "token.h"
#include "update-service.h"

namespace {

enum class Outcome { Done, Failed, Usage, WrongEntries, Away };

constexpr frame::OutcomeInfo kOutcomes[] = {
    {"ok", 0, "done, or not configured", frame::Tone::Answer},
    {"failed", 1, "could not go on", frame::Tone::Failure},
    {"usage", 2, "usage", frame::Tone::Failure},
    {"wrong-entries", 3, "wrong entries", frame::Tone::Failure},
    {"away", 4, "the service does not run", frame::Tone::Failure},
};

constexpr const frame::OutcomeInfo& infoOf(Outcome outcome) {
  return kOutcomes[static_cast<std::size_t>(outcome)];
}

struct Options {
  bool json = false;
  std::string bus;
  bool checkConfiguration = false;
  std::string configuration;
  std::string action;
  std::string answer;
};

using Option = frame::Option<Options>;

constexpr Option kBus[] = {
    {"--bus ADDRESS", &Options::bus, "The bus of the services; default: the system bus"}};
constexpr Option kCheck[] = {
    {"--check-config", &Options::checkConfiguration, "Only say what is wrong in FILE"},
    {"FILE", &Options::configuration, "The configuration; has a default"},
};

std::vector<std::string> answers() {
  return {"yes", "no", "later"};
}

constexpr char kUser[] = "fw-fleet";  // that the service runs as

constexpr Option kConsent[] = {
    Option("ACTION", &Options::action, "Its number, as status names it").required(),
    Option("ANSWER", &Options::answer, "").required().of(answers),
};

// Of a configuration that is not used as a whole when an entry is wrong.
frame::Report reportOf(const std::vector<fleet::ConfigurationProblem>& problems, const std::string& path) {
  frame::Report report(Outcome::WrongEntries,
                       std::to_string(problems.size()) +
                           (problems.size() == 1 ? " entry is wrong" : " entries are wrong") +
                           ", so the server is not asked.",
                       "Correct what is named.");
  report.details["problems"] = Json::Value(Json::arrayValue);
  for (const auto& problem : problems) {
    report.body += textOf(problem, path) + "\n";
    Json::Value& entry = report.details["problems"].append(Json::Value());
    entry["line"] = problem.line;
    entry["message"] = problem.sentence;
  }
  return report;
}

struct Settings {
  fleet::Configuration configuration;
  std::string token;
};

std::map<std::string, std::string> attributesOf(const Settings& settings) {
  std::map<std::string, std::string> attributes = {{"controller", settings.configuration.controller},
                                                   {"model", fwplatform::readSetModel().value_or("")},
                                                   {"client", "fw-fleet " FW_FLEET_VERSION}};
  if (!settings.configuration.serial.empty()) {
    attributes["serial"] = settings.configuration.serial;
  }
  return attributes;
}

[[noreturn]] void serve(const Settings& settings, const std::string& busAddress) {
  const fleet::ArtifactStore store;
  const fleet::ActionFiles files;
  fleet::UpdateService installer(busAddress);
  const auto source = fleet::chosenSource(settings.configuration, settings.token,
                                          fwplatform::readSetModel().value_or(""), installer);
  const fleet::Downloader downloader(settings.configuration, settings.token, store);
  fleet::FleetBus bus(busAddress);
  std::mt19937 random{std::random_device{}()};
  fleet::Schedule schedule(settings.configuration.poll,
                           [&random] { return std::uniform_real_distribution<double>(0, 1)(random); });
  const auto now = [] {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now().time_since_epoch());
  };
  const auto log = [](const std::string& sentence) {
    std::cerr << base::printableText(sentence) << std::endl;
  };
  const auto tell = [&](const fleet::Agent& agent) {
    bus.tell(fleet::statusOf(agent, settings.configuration, std::time(nullptr)));
  };
  fleet::Agent agent({settings.configuration, *source, downloader, store, files, installer, schedule,
                      &fleet::checkArtifacts, attributesOf(settings), now, log,
                      [&bus] { return bus.takePollWish(); }, tell});
  const fleet::Orders orders{
      [&agent] { agent.pollNow(); },
      [&agent](const std::string& action, bool isYes) { return agent.consent(action, isYes); }};
  tell(agent);
  sd_notify(0, "READY=1");
  for (;;) {
    agent.turn();
    malloc_trim(0);  // documents take many times what waiting does
    tell(agent);
    bus.serve(agent.pause(), orders);
  }
}

// What keeps the server from being asked; otherwise nothing, with the settings.
std::optional<frame::Report> refusalOf(const std::string& path, Settings& settings) {
  if (access(path.c_str(), F_OK) != 0) {
    return frame::Report(Outcome::Done, "There is no " + path + ": no server is asked.");
  }
  const fleet::ConfigurationRead read = fleet::readConfiguration(path);
  if (!read.problems.empty()) {
    return reportOf(read.problems, path);
  }
  settings.configuration = read.configuration;
  if (!read.configuration.clientKey.empty()) {
    if (const std::string problem = fleet::problemOfKey(read.configuration.clientKey); !problem.empty()) {
      return frame::Report(Outcome::WrongEntries, problem, "Correct the key file.");
    }
  }
  if (read.configuration.tokenType == fleet::TokenType::None) {
    return std::nullopt;
  }
  const fleet::TokenRead token = fleet::readToken(read.configuration.tokenFile);
  if (!token.problem.empty()) {
    return frame::Report(Outcome::WrongEntries, token.problem, "Correct the token file.");
  }
  settings.token = token.token;
  return std::nullopt;
}

// Root may read what the service may not. False where its user is not known.
bool becomeItsUser() {
  const passwd* const user = geteuid() == 0 ? getpwnam(kUser) : nullptr;
  return user != nullptr && initgroups(kUser, user->pw_gid) == 0 && setegid(user->pw_gid) == 0 &&
         seteuid(user->pw_uid) == 0;
}

frame::Report checkConfiguration(const std::string& path) {
  becomeItsUser();
  Settings settings;
  const auto refusal = refusalOf(path, settings);
  return refusal ? *refusal : frame::Report(Outcome::Done, path + " has no wrong entries.");
}

frame::Report runService(const Options& options) {
  if (options.checkConfiguration) {
    return checkConfiguration(options.configuration.empty() ? fleet::kConfigurationFile
                                                            : options.configuration);
  }
  Settings settings;
  if (const auto refusal = refusalOf(fleet::kConfigurationFile, settings)) {
    return *refusal;
  }
  try {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    serve(settings, options.bus);
  } catch (const std::exception& error) {
    return frame::Report(Outcome::Failed, std::string("The service cannot go on: ") + error.what());
  }
}

// A word that is no command would be a file otherwise.
void settleService(Options& options) {
  if (!options.checkConfiguration && !options.configuration.empty()) {
    throw frame::UsageError("there is no command " + options.configuration);
  }
}

void settleCommand(Options& options) {
  if (options.checkConfiguration) {
    throw frame::UsageError("--check-config goes with no command");
  }
}

void settleConsent(Options& options) {
  settleCommand(options);
  const std::vector<std::string> known = answers();
  if (std::find(known.begin(), known.end(), options.answer) == known.end()) {
    throw frame::UsageError("ANSWER is yes, no or later");
  }
}

// Its unit does not begin without a configuration.
const char* howToStart() {
  return access(fleet::kConfigurationFile, F_OK) == 0
             ? "Start it: systemctl start fw-fleet. Why it ended: journalctl -u fw-fleet."
             : "Write /etc/fw-update/fw-fleet.conf, which names the server, and start it: systemctl start "
               "fw-fleet.";
}

// What a command asks the service on the bus.
template <typename Ask>
frame::Report asking(const Ask& ask) {
  try {
    return ask();
  } catch (const fleet::FleetRefused& refused) {
    return frame::Report(Outcome::Failed, refused.what(),
                         refused.isNotPermitted ? "" : "See what it is at: fw-fleet status.");
  } catch (const fleet::FleetAway& away) {
    return frame::Report(Outcome::Away, away.what(), howToStart());
  }
}

frame::Report runStatus(const Options& options) {
  return asking([&] {
    const auto status = fleet::statusIn(fleet::askStatus(options.bus));
    if (!status) {
      return frame::Report(Outcome::Failed, "fw-fleet tells something else than its status.",
                           "Install the same version of the command and the service.");
    }
    frame::Report report(Outcome::Done);
    report.details = *status;
    report.body = fleet::textOf(*status, std::time(nullptr));
    return report;
  });
}

frame::Report runPoll(const Options& options) {
  return asking([&] {
    fleet::askForPoll(options.bus);
    return frame::Report(Outcome::Done, "The server is asked now.");
  });
}

frame::Report runConsent(const Options& options) {
  return asking([&] {
    fleet::giveConsent(options.bus, options.action, options.answer);
    return frame::Report(Outcome::Done, "The answer is taken.");
  });
}

constexpr char kSummary[] = "Updates the set as a fleet's server wants: asks it until ended.";

constexpr frame::Command<Options> kCommands[] = {
    {{"status", "Says what the service is at", "fw-fleet status"}, {}, runStatus, settleCommand},
    {{"poll", "Has the server asked now", "fw-fleet poll"}, {}, runPoll, settleCommand},
    {{"consent", "Answers what an action asks", "fw-fleet consent 12 yes"},
     {kConsent},
     runConsent,
     settleConsent},
    {{"", "", "fw-fleet --check-config"}, {kCheck}, runService, settleService},
};

constexpr frame::Program<Options> kProgram = {
    {"fw-fleet", kSummary, "", kOutcomes, Outcome::Usage, Outcome::Failed, 18},
    kBus,
    kCommands,
};

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  umask(077);
  return frame::perform(kProgram, argc, argv);
}
