// SPDX-License-Identifier: Apache-2.0
#include "fleet-test.h"

#include <curl/curl.h>
#include <unistd.h>

#include <filesystem>

#include "ddi-source.h"

std::map<std::string, std::string> ScriptedInstaller::versions() {
  if (isAway) {
    throw fleet::InstallerAway("The update service does not answer.");
  }
  return components;
}

std::optional<std::string> ScriptedInstaller::versionOf(const std::string& component) {
  const auto all = versions();
  const auto found = all.find(component);
  return found != all.end() ? std::optional(found->second) : std::nullopt;
}

fleet::HandedOver ScriptedInstaller::ask(const std::string& component, fleet::Kind kind,
                                         const std::vector<fleet::InstallFile>& files) {
  const auto hook = whenAsked;  // it may be exchanged by itself
  hook();
  if (isBusy) {
    throw fleet::InstallerBusy("The component is being updated.");
  }
  if (!refusal.empty()) {
    return {refusal, "Do something about it."};
  }
  char content[64] = {};
  const ssize_t size = pread(files.at(0).descriptor, content, sizeof content, 0);
  jobs[component] = std::string(content, size > 0 ? static_cast<std::size_t>(size) : 0);
  asked.push_back(component + ": " + jobs[component]);
  kinds.push_back(kind);
  followed = 0;
  return {};
}

std::uint64_t ScriptedInstaller::lastEnded(const std::string&) {
  return failedBefore;
}

fleet::Followed ScriptedInstaller::follow(const std::string& component, std::uint64_t after,
                                          std::chrono::milliseconds) {
  const auto hook = whenFollowed;
  hook();
  if (jobs.count(component) == 0 && failedBefore > after) {
    return {fleet::JobEnd::Failed, "It failed before.", ""};
  }
  if (jobs.count(component) == 0) {
    return {fleet::JobEnd::Unknown, "", ""};
  }
  if (++followed < turnsOfJob) {
    return {};
  }
  const std::string content = jobs[component];
  jobs.erase(component);
  if (!failure.empty()) {
    return {fleet::JobEnd::Failed, failure, "Look at the module."};
  }
  components[component] = content;
  return {fleet::JobEnd::Updated, "", ""};
}

void FleetTest::SetUpTestSuite() {
  curl_global_init(CURL_GLOBAL_DEFAULT);
}

FleetTest::FleetTest() {
  configuration_.server = lab_.address();
  configuration_.controller = "tv1";
  configuration_.allowInsecure = true;
  configuration_.confirm = fleet::ConfirmPolicy::Yes;
  makeSource_ = [this] { return std::make_unique<fleet::DdiSource>(configuration_, token_); };
  restart();
}

void FleetTest::restart() {
  agent_.reset();
  store_ = std::make_unique<fleet::ArtifactStore>(folder_.path() + "/store");
  files_ = std::make_unique<fleet::ActionFiles>(folder_.path() + "/actions");
  source_ = makeSource_();
  downloader_ = std::make_unique<fleet::Downloader>(configuration_, token_, *store_);
  schedule_ = std::make_unique<fleet::Schedule>(configuration_.poll, [] { return 0.5; });
  const auto now = [this] {
    const auto hook = whenTimeIsAsked_;
    hook();
    return time_;
  };
  agent_ = std::make_unique<fleet::Agent>(fleet::AgentParts{
      configuration_,
      *source_,
      *downloader_,
      *store_,
      *files_,
      installer_,
      *schedule_,
      [this](const std::string&, const std::vector<fleet::InstallFile>&) { return checked_; },
      {{"model", "X1"}},
      now,
      [this](const std::string& sentence) { log_.push_back(sentence); }});
}

void FleetTest::cutPower() {
  installer_.jobs.clear();
  restart();
}

void FleetTest::turns(int count) {
  for (int turn = 0; turn < count; ++turn) {
    time_ += agent_->pause();
    agent_->turn();
    if (!agent_->trouble().empty()) {
      troubles_.insert(agent_->trouble());
    }
  }
}

void FleetTest::hour() {
  const auto end = time_ + std::chrono::hours(1);
  while (time_ + agent_->pause() < end) {
    turns(1);
  }
}

void FleetTest::turnsThroughCuts(int count) {
  for (int turn = 0; turn < count; ++turn) {
    try {
      turns(1);
    } catch (const PowerCut&) {
      cutPower();
    }
  }
}

void FleetTest::assign(const std::string& more) {
  lab_.steer("assign",
             "{'set': 'tv1', 'chunks': [{'name': 'tunerfw', 'version': '2.0', 'files': {'a.img': '2.0'}}]" +
                 more + "}");
}

void FleetTest::assignTwo() {
  lab_.steer("assign",
             "{'set': 'tv1', 'chunks': [{'name': 'tunerfw', 'version': '2.0', 'files': {'a.img': '2.0'}}, "
             "{'name': 'panelfw', 'version': '3.0', 'files': {'a.img': '3.0', 'info.json': '{}'}}]}");
}

void FleetTest::assignTwoFiles() {
  lab_.steer("assign",
             "{'set': 'tv1', 'chunks': [{'name': 'panelfw', 'version': '3.0', 'files': {'a.img': '3.0', "
             "'info.json': '{}'}}]}");
}

void FleetTest::assignLarge() {
  lab_.steer("assign",
             "{'set': 'tv1', 'chunks': [{'name': 'tunerfw', 'version': '2.0', 'files': {'a.img': '" +
                 std::string(200000, 'x') + "'}}]}");
}

std::uintmax_t FleetTest::partSize() const {
  std::uintmax_t size = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder_.path() + "/store")) {
    size += entry.path().extension() == ".part" ? entry.file_size() : 0;
  }
  return size;
}
