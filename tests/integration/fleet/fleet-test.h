// SPDX-License-Identifier: Apache-2.0
// A set with a client of a fleet's server, and this server. The components and the update service are
// scripted; time passes only when the client waits.
#ifndef TESTS_FLEET_FLEET_TEST_H
#define TESTS_FLEET_FLEET_TEST_H

#include <gmock/gmock.h>

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "agent.h"
#include "lab.h"
#include "temporary-folder.h"

// The power goes off here.
struct PowerCut {};

// Brings what it is handed into components: their version is then the first artifact's content.
class ScriptedInstaller : public fleet::Installer {
 public:
  std::optional<std::string> versionOf(const std::string& component) override;
  std::map<std::string, std::string> versions() override;
  fleet::HandedOver ask(const std::string& component, fleet::Kind kind,
                        const std::vector<fleet::InstallFile>& files) override;
  std::uint64_t lastEnded(const std::string& component) override;
  fleet::Followed follow(const std::string& component, std::uint64_t after,
                         std::chrono::milliseconds patience) override;

  std::map<std::string, std::string> components{{"tunerfw", "1.0"}, {"panelfw", "1.0"}};
  std::vector<std::string> asked;  // "tunerfw: 2.0"
  std::vector<fleet::Kind> kinds;  // of what was asked
  std::string refusal;             // of what is asked
  std::string failure;             // of jobs
  bool isAway = false;
  bool isBusy = false;
  std::uint64_t failedBefore = 0;  // an earlier job that failed; 0: there was none
  int turnsOfJob = 1;              // until its end
  std::function<void()> whenAsked = [] {};
  std::function<void()> whenFollowed = [] {};
  std::map<std::string, std::string> jobs;  // content by component; gone after a power cut
  int followed = 0;
};

class FleetTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite();
  FleetTest();

  // A process that was killed leaves everything; power that was cut leaves no jobs.
  void restart();
  void cutPower();
  // So many turns, each when the server is to be asked.
  void turns(int count);
  // An hour of the set: as many turns as it takes.
  void hour();
  // Turns, and restarts after each power cut.
  void turnsThroughCuts(int count);
  // An action with one component of content 2.0, and what else is given.
  void assign(const std::string& more = "");
  void assignTwo();
  // Of one component.
  void assignTwoFiles();
  // 200,000 bytes.
  void assignLarge();
  // Of what lies in the store and is not whole.
  std::uintmax_t partSize() const;
  std::string versionOf(const std::string& component) { return installer_.components[component]; }
  const fleet::Action& action() const { return agent_->actions().front(); }

  base::TemporaryFolder folder_{"/tmp/fleet-test."};
  Lab lab_;
  ScriptedInstaller installer_;
  fleet::Configuration configuration_;
  std::string token_;
  fleet::Checked checked_;
  std::function<void()> whenTimeIsAsked_ = [] {};
  std::chrono::milliseconds time_{1000};
  std::vector<std::string> log_;
  std::set<std::string> troubles_;  // that there were after turns
  std::unique_ptr<fleet::ArtifactStore> store_;
  std::unique_ptr<fleet::ActionFiles> files_;
  std::function<std::unique_ptr<fleet::Source>()> makeSource_;
  std::unique_ptr<fleet::Source> source_;
  std::unique_ptr<fleet::Downloader> downloader_;
  std::unique_ptr<fleet::Schedule> schedule_;
  std::unique_ptr<fleet::Agent> agent_;
};

#endif
