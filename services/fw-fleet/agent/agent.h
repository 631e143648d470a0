// SPDX-License-Identifier: Apache-2.0
// Does what is next for the actions of the fleet's server: asks the server, downloads, has components
// updated, and tells what came of it. What is intended is on the disk before it is done, so that it may be
// killed anywhere and goes on with another object. One thread.
#ifndef FW_FLEET_AGENT_H
#define FW_FLEET_AGENT_H

#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "action-files.h"
#include "artifact-store.h"
#include "configuration.h"
#include "downloader.h"
#include "installer.h"
#include "next-step.h"
#include "schedule.h"
#include "source.h"

namespace fleet {

// Why a component's artifacts are not to be handed over; an empty sentence: they are.
struct Checked {
  std::string sentence;
  std::string remedy;
};
using Check = std::function<Checked(const std::string& component, const std::vector<InstallFile>& files)>;

class Agent;

// What the agent works with; all of it outlives the agent.
struct AgentParts {
  const Configuration& configuration;
  const Source& source;
  const Downloader& downloader;
  const ArtifactStore& store;
  const ActionFiles& files;
  Installer& installer;
  Schedule& schedule;
  Check check;
  // Of the set itself, without its components' versions.
  std::map<std::string, std::string> attributes;
  // Of a steady clock.
  std::function<std::chrono::milliseconds()> now;
  std::function<void(const std::string& sentence)> log;
  // Whether somebody wants the server to be asked before its time; asked often.
  std::function<bool()> isPollWanted = [] { return false; };
  // Told what an action came to.
  std::function<void(const Agent& agent)> changed = [](const Agent&) {};
};

class Agent {
 public:
  using Time = std::chrono::milliseconds;

  // Takes up what is kept. Throws std::system_error.
  explicit Agent(AgentParts parts);

  // Asks the server when it is time to, then does for each action what can be done now. While a component
  // is being updated that waits for it, until the server is asked again at most.
  void turn();
  // Until the server is asked; the next turn is to be then, or earlier.
  Time pause() const;
  // The server is asked in the next turn.
  void pollNow() { nextPoll_ = Time(0); }
  // What the action asks of the owner of the set: "confirm", "download", "update", or nothing.
  std::string asks(const Action& action) const;
  // His answer. False when the action does not ask, or the answer cannot be kept: then it is as if he had
  // not been asked.
  bool consent(const std::string& id, bool isYes);

  const std::list<Action>& actions() const { return actions_; }
  const std::string& trouble() const { return trouble_; }  // of the last poll; empty when there was none

 private:
  enum class Next { GoOn, LeaveIt };

  void poll();
  bool pollWhenDue();
  void takeTrouble(Meaning meaning, std::optional<std::chrono::seconds> retryAfter,
                   const std::string& sentence);
  void follow(const ddi::Poll& poll);
  void takeDeployment(const ddi::Poll& poll);
  void takeConfirmation(const ddi::Poll& poll);
  void takeCancel(const ddi::Poll& poll);
  void sendAttributes(const std::string& address);
  void visitInstalled(const std::string& address);
  void forgetOthers(const std::string& offered);

  Action* find(const std::string& id);
  Action& add(Action action);
  std::uint64_t nextNumber() const;
  bool keep(Action& action);

  bool mayWork(const Action& action) const;
  void work(Action& action);
  void takeAbsence(Action& action, const NextStep& step, const std::string& sentence);
  Next perform(Action& action, const NextStep& step);
  Next sendCancelAnswer(Action& action);
  Next askConfirmation(Action& action);
  Next sendConfirmation(Action& action);
  Next sendEnd(Action& action);
  Next tellOnce(Action& action, bool Action::*told, ddi::Execution execution,
                const std::vector<std::string>& details);
  Next tellDownloaded(Action& action);
  Next download(Action& action, Component& component);
  bool prepare(Action& action);
  bool fetch(Action& action, Component& component, const ddi::Artifact& artifact);
  bool takeFailure(Component& component, const ddi::Artifact& artifact, const Downloaded& downloaded);
  Next check(Component& component);
  Next askInstall(Action& action, Component& component);
  Next followInstall(Component& component);
  void clean();

  ddi::Feedback feedback(ddi::Execution execution, ddi::Finished finished,
                         std::vector<std::string> details) const;

  AgentParts parts_;
  std::list<Action> actions_;  // in the order they came
  Time nextPoll_{0};
  std::string trouble_;
  std::optional<Time> awaySince_;        // who updates components; nothing when it answered
  std::string visited_;                  // the address of the last finished action
  std::map<std::string, int> attempts_;  // at artifacts that were wrong or missing, by their hashes
};

}  // namespace fleet

#endif
