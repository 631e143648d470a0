// SPDX-License-Identifier: Apache-2.0
// Many sets at one server: the client's own code for each, with components that answer at once. In the
// middle all get an action, and the server refuses to answer for a while. Exit code 0: all of them went
// on, and each action has one end, which is true. What it prints says how their requests spread.
#include <curl/curl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "agent.h"
#include "ddi-source.h"
#include "lab.h"
#include "temporary-folder.h"

namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds kInterval{30};
constexpr seconds kPatience{300};  // for what takes two intervals
constexpr char kOld[] = "1.0";
constexpr char kNew[] = "2.0";

struct Settings {
  int clients = 1000;
  int seconds = 600;
  int speed = 1;  // how much faster the sets' time passes
};

// The time of all sets.
class Time {
 public:
  explicit Time(int speed) : speed_(speed), begin_(std::chrono::steady_clock::now()) {}
  milliseconds now() const {
    return duration_cast<milliseconds>(std::chrono::steady_clock::now() - begin_) * speed_;
  }
  // Or until a second has passed.
  void waitUntil(milliseconds when) const {
    std::this_thread::sleep_for(
        std::clamp((when - now()) / speed_ + milliseconds(1), milliseconds(0), milliseconds(1000)));
  }

 private:
  const int speed_;
  const std::chrono::steady_clock::time_point begin_;
};

// Of one set; read when its thread has ended, but for the count.
struct Told {
  std::vector<milliseconds> polls;
  std::atomic<std::size_t> count{0};
  std::string problem;
};

class CountingSource : public fleet::DdiSource {
 public:
  CountingSource(const fleet::Configuration& configuration, const Time& time, Told& told)
      : DdiSource(configuration, ""), time_(time), told_(told) {}

  fleet::Answered<fleet::ddi::Poll> poll() const override {
    told_.polls.push_back(time_.now());
    ++told_.count;
    return DdiSource::poll();
  }

 private:
  const Time& time_;
  Told& told_;
};

class AnsweringInstaller : public fleet::Installer {
 public:
  std::optional<std::string> versionOf(const std::string&) override { return version_; }
  std::map<std::string, std::string> versions() override { return {{"tunerfw", version_}}; }
  fleet::HandedOver ask(const std::string&, fleet::Kind, const std::vector<fleet::InstallFile>&) override {
    version_ = kNew;
    return {};
  }
  std::uint64_t lastEnded(const std::string&) override { return 0; }
  fleet::Followed follow(const std::string&, std::uint64_t, milliseconds) override {
    return {fleet::JobEnd::Updated, "", ""};
  }

 private:
  std::string version_ = kOld;
};

std::string nameOf(int number) {
  return "tv" + std::to_string(number);
}

// One set, from its start until it is to end.
void live(int number, const std::string& server, const std::string& folder, const Time& time,
          const std::atomic<bool>& mustEnd, Told& told) {
  fleet::Configuration configuration;
  configuration.server = server;
  configuration.controller = nameOf(number);
  configuration.allowInsecure = true;
  configuration.poll = kInterval;
  const fleet::ArtifactStore store(folder + "/store" + std::to_string(number));
  const fleet::ActionFiles files(folder + "/actions" + std::to_string(number));
  const CountingSource source(configuration, time, told);
  const fleet::Downloader downloader(configuration, "", store);
  AnsweringInstaller installer;
  std::mt19937 dice(static_cast<unsigned int>(number));
  fleet::Schedule schedule(configuration.poll,
                           [&dice] { return std::uniform_real_distribution<double>(0, 1)(dice); });
  fleet::Agent agent(
      {configuration,
       source,
       downloader,
       store,
       files,
       installer,
       schedule,
       [](const std::string&, const std::vector<fleet::InstallFile>&) { return fleet::Checked{}; },
       {{"model", "simulated"}},
       [&time] { return time.now(); },
       [](const std::string&) {}});
  while (!mustEnd) {
    agent.turn();
    const milliseconds next = time.now() + agent.pause();
    while (!mustEnd && time.now() < next) {
      time.waitUntil(next);
    }
  }
}

class Fleet {
 public:
  explicit Fleet(const Settings& settings)
      : time_(settings.speed), told_(static_cast<std::size_t>(settings.clients)) {
    lab_.steer("switch", "{'sleep': '00:00:30'}");
    for (int number = 0; number < settings.clients; ++number) {
      threads_.emplace_back([this, number] {
        Told& told = told_[static_cast<std::size_t>(number)];
        try {
          live(number, lab_.address(), folder_.path(), time_, mustEnd_, told);
        } catch (const std::exception& error) {
          told.problem = error.what();
        }
      });
    }
  }
  Fleet(const Fleet&) = delete;
  Fleet& operator=(const Fleet&) = delete;
  ~Fleet() { end(); }

  const Lab& lab() const { return lab_; }
  const Time& time() const { return time_; }
  const std::vector<Told>& told() const { return told_; }

  void assignAll() const {
    for (std::size_t number = 0; number < told_.size(); ++number) {
      lab_.steer("assign", "{'set': '" + nameOf(static_cast<int>(number)) +
                               "', 'chunks': [{'name': 'tunerfw', 'version': '" + kNew +
                               "', 'files': {'a.img': '" + std::string(4096, 'x') + "'}}]}");
    }
  }

  // How many sets have not asked since.
  std::size_t silentSince(const std::vector<std::size_t>& counts) const {
    std::size_t silent = 0;
    for (std::size_t number = 0; number < told_.size(); ++number) {
      silent += told_[number].count == counts[number] ? 1U : 0U;
    }
    return silent;
  }

  std::vector<std::size_t> counts() const {
    std::vector<std::size_t> counts;
    for (const Told& told : told_) {
      counts.push_back(told.count);
    }
    return counts;
  }

  void end() {
    mustEnd_ = true;
    for (std::thread& thread : threads_) {
      thread.join();
    }
    threads_.clear();
  }

 private:
  const base::TemporaryFolder folder_{"/dev/shm/fleet-simulation."};
  const Lab lab_;
  const Time time_;
  std::atomic<bool> mustEnd_{false};
  std::vector<Told> told_;
  std::vector<std::thread> threads_;
};

// Of the sets' time, from its begin to its end.
struct Span {
  const char* name;
  milliseconds begin;
  milliseconds end;
};

// How many sets asked in each second of it.
void printSpread(const std::vector<Told>& told, const Span& span) {
  std::map<std::int64_t, int> perSecond;
  int polls = 0;
  for (const Told& one : told) {
    for (const milliseconds at : one.polls) {
      if (at >= span.begin && at < span.end) {
        ++perSecond[duration_cast<seconds>(at).count()];
        ++polls;
      }
    }
  }
  int most = 0;
  for (const auto& [second, count] : perSecond) {
    most = std::max(most, count);
  }
  const double mean = polls / std::max(1.0, static_cast<double>((span.end - span.begin).count()) / 1000);
  std::printf("%s: %d polls, %.1f in a second on the average, %d in the fullest (%.2f times)\n", span.name,
              polls, mean, most, mean > 0 ? most / mean : 0);
}

// Whether each set's action has one end, and that is true.
std::vector<std::string> wrongActions(const Json::Value& state) {
  std::vector<std::string> wrong;
  for (const Json::Value& action : state["actions"]) {
    int ends = 0;
    for (const Json::Value& entry : action["history"]) {
      ends += entry["execution"].asString() == "closed" ? 1 : 0;
    }
    const std::string name = action["set"].asString();
    const std::string version = state["sets"][name]["attributes"]["version.tunerfw"].asString();
    if (action["state"].asString() != "finished" || ends != 1 || version != kNew) {
      std::string line = name + ": ";
      line += action["state"].asString() + ", ";
      line += std::to_string(ends) + " ends, version ";
      wrong.push_back(line + version);
    }
  }
  return wrong;
}

// Until all have asked once more and told their new versions, or ought to have.
void awaitAll(const Fleet& fleet) {
  const auto before = fleet.counts();
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while ((fleet.silentSince(before) > 0 || !wrongActions(fleet.lab().state()).empty()) &&
         std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(milliseconds(500));
  }
}

int tell(const Fleet& fleet, const Json::Value& state, const std::vector<Span>& spans, std::size_t silent) {
  for (const Span& span : spans) {
    printSpread(fleet.told(), span);
  }
  std::printf("requests: %u\n", state["requests"].size());
  std::vector<std::string> problems = wrongActions(state);
  for (const Told& told : fleet.told()) {
    if (!told.problem.empty()) {
      problems.push_back(told.problem);
    }
  }
  if (silent > 0) {
    problems.push_back(std::to_string(silent) + " sets ask no more");
  }
  if (state["actions"].size() != fleet.told().size()) {
    problems.push_back("only " + std::to_string(state["actions"].size()) + " actions");
  }
  for (const std::string& problem : problems) {
    std::printf("%s\n", problem.c_str());
  }
  std::printf("%zu sets, %zu problems\n", fleet.told().size(), problems.size());
  return problems.empty() ? 0 : 1;
}

// A fourth of the time each: nothing to do, an action for all, no answers, and answers again.
int simulate(const Settings& settings) {
  Fleet fleet(settings);
  const auto fourth = milliseconds(settings.seconds * 1000) / 4;
  const auto now = [&fleet] { return fleet.time().now(); };
  std::this_thread::sleep_for(fourth);
  const milliseconds assigned = now();
  fleet.assignAll();
  std::this_thread::sleep_for(fourth);
  const milliseconds refused = now();
  fleet.lab().steer("switch", "{'answers': [{'what': 'base', 'status': 503, 'times': 1000000000}]}");
  std::this_thread::sleep_for(fourth);
  const milliseconds answered = now();
  fleet.lab().steer("switch", "{'answers': []}");
  std::this_thread::sleep_for(fourth);
  const milliseconds end = now();
  const auto before = fleet.counts();
  awaitAll(fleet);
  const std::size_t silent = fleet.silentSince(before);
  const Json::Value state = fleet.lab().state();
  fleet.end();
  return tell(fleet, state,
              {{"nothing to do", milliseconds(kInterval), assigned},
               {"an action for all", assigned, refused},
               {"503", refused, answered},
               {"after 503", answered, end}},
              silent);
}

// Each set has files and connections of its own.
void allowManyFiles() {
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    Settings settings;
    CLI::App app("Many sets at one server");
    app.add_option("--clients", settings.clients, "Sets")->check(CLI::Range(1, 100000));
    app.add_option("--seconds", settings.seconds, "How long")->check(CLI::Range(1, 86400));
    app.add_option("--speed", settings.speed, "How much faster the sets' time passes")
        ->check(CLI::Range(1, 1000));
    CLI11_PARSE(app, argc, argv);
    allowManyFiles();
    curl_global_init(CURL_GLOBAL_DEFAULT);
    return simulate(settings);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
