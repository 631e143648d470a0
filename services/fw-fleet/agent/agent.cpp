// SPDX-License-Identifier: Apache-2.0
#include "agent.h"

#include <fcntl.h>

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>

#include "artifact-check.h"
#include "file-descriptor.h"
#include "system-error.h"

namespace fleet {
namespace {

using ddi::Execution;
using ddi::Finished;

constexpr std::size_t kMostEnded = 64;
constexpr int kMostAttemptsAtArtifact = 3;
// Connections of one turn, one after the other, that break after they have brought less than this.
constexpr int kMostPoorConnections = 8;
constexpr std::int64_t kPoor = std::int64_t{1} << 20;
// An action needs a few for each component; more is a fault that is not to take the processor.
constexpr int kMostSteps = 1000;
constexpr std::chrono::hours kLongestAbsence{24};
constexpr char kFreeSpace[] = "Free space in /var/lib/fw-fleet.";
constexpr char kCorrectAddress[] =
    "Correct the server's address of artifacts, or /etc/fw-update/fw-fleet.conf.";
constexpr char kSmallerAction[] =
    "Offer less in one action, or set max-action in /etc/fw-update/fw-fleet.conf.";
constexpr char kPlainEnd[] = "The server did not take the messages of this end.";

// The action changed while something was downloaded for it.
struct Changed {};

bool hasArtifacts(const ArtifactStore& store, const Component& component) {
  return std::all_of(
      component.artifacts.begin(), component.artifacts.end(),
      [&](const ddi::Artifact& artifact) { return store.has(artifact.sha256, *artifact.size); });
}

std::set<std::string> hashesOf(const Action& action) {
  std::set<std::string> hashes;
  for (const Component& component : action.components) {
    for (const ddi::Artifact& artifact : component.artifacts) {
      hashes.insert(artifact.sha256);
    }
  }
  return hashes;
}

// Whether what is downloaded for the action is larger than that. A sum of all sizes could be no number.
bool isLarger(const Action& action, std::int64_t most) {
  std::int64_t left = most;
  for (const Component& component : action.components) {
    if (component.stage == Stage::Installed) {
      continue;
    }
    for (const ddi::Artifact& artifact : component.artifacts) {
      if (*artifact.size > left) {
        return true;
      }
      left -= *artifact.size;
    }
  }
  return false;
}

bool hasAsked(const Action& action) {
  return std::any_of(action.components.begin(), action.components.end(),
                     [](const Component& component) { return component.stage == Stage::Asked; });
}

bool needsInstaller(Step step) {
  return step == Step::Download || step == Step::AskInstall || step == Step::FollowInstall;
}

struct OpenFiles {
  std::vector<base::FileDescriptor> descriptors;
  std::vector<InstallFile> files;
};

// Files that cannot be opened are left out.
OpenFiles opened(const ArtifactStore& store, const Component& component) {
  OpenFiles open;
  for (const ddi::Artifact& artifact : component.artifacts) {
    base::FileDescriptor file(
        openat(store.directory(), artifact.sha256.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file) {
      open.files.push_back({artifact.fileName, file.get()});
      open.descriptors.push_back(std::move(file));
    }
  }
  return open;
}

}  // namespace

Agent::Agent(AgentParts parts) : parts_(std::move(parts)) {
  KeptActions kept = parts_.files.load();
  for (const std::string& path : kept.newer) {
    parts_.log(path + " was made by a newer fw-fleet, and is left as it is.");
  }
  for (const std::string& path : kept.setAside) {
    parts_.log("What was kept of an action is damaged, and was set aside as " + path + ".");
  }
  actions_.assign(std::make_move_iterator(kept.actions.begin()), std::make_move_iterator(kept.actions.end()));
  nextPoll_ = parts_.now() + parts_.schedule.first();
}

void Agent::turn() {
  pollWhenDue();
  std::vector<std::string> ids;  // a poll within may add actions
  std::transform(actions_.begin(), actions_.end(), std::back_inserter(ids),
                 [](const Action& action) { return action.id; });
  for (const std::string& id : ids) {
    if (Action* const action = find(id)) {
      work(*action);
    }
  }
  clean();
}

Agent::Time Agent::pause() const {
  return std::max(nextPoll_ - parts_.now(), Time(0));
}

bool Agent::pollWhenDue() {
  const bool isDue = parts_.now() >= nextPoll_ || parts_.isPollWanted();
  if (isDue) {
    poll();
  }
  return isDue;
}

void Agent::takeTrouble(Meaning meaning, std::optional<std::chrono::seconds> retryAfter,
                        const std::string& sentence) {
  const Trouble trouble = meaning == Meaning::Refused ? Trouble::Refused : Trouble::Passing;
  nextPoll_ = parts_.now() + parts_.schedule.afterTrouble(trouble, retryAfter);
  if (sentence != trouble_) {
    parts_.log(sentence);
  }
  trouble_ = sentence;
}

void Agent::poll() {
  const Answered<ddi::Poll> answered = parts_.source.poll();
  if (!answered.document) {
    takeTrouble(answered.meaning, answered.retryAfter, answered.sentence);
    return;
  }
  nextPoll_ = parts_.now() + parts_.schedule.afterAnswer(answered.document->sleep);
  if (!answered.sentence.empty() && answered.sentence != trouble_) {
    parts_.log(answered.sentence);
  }
  trouble_ = answered.sentence;
  follow(*answered.document);
}

void Agent::follow(const ddi::Poll& poll) {
  if (!poll.configData.empty()) {
    sendAttributes(poll.configData);
  }
  if (!poll.cancel.empty()) {
    takeCancel(poll);
  } else if (!poll.confirmation.empty()) {
    takeConfirmation(poll);
  } else if (!poll.deployment.empty()) {
    takeDeployment(poll);
  } else {
    forgetOthers("");
  }
  if (!poll.installed.empty()) {
    visitInstalled(poll.installed);
  }
}

void Agent::takeDeployment(const ddi::Poll& poll) {
  const Answered<ddi::Deployment> answered = parts_.source.deployment(poll.deployment);
  if (!answered.document) {
    trouble_ = answered.sentence;  // gone by now, or in trouble: the next poll tells
    return;
  }
  const ddi::Deployment& deployment = *answered.document;
  Action* const known = find(deployment.id);
  if (known != nullptr && !parts_.source.hearsEnds() && hasCarriedOut(*known, deployment)) {
    forgetOthers(deployment.id);
    return;
  }
  if (known != nullptr) {
    offer(*known, deployment);
    keep(*known);
  } else {
    keep(add(actionOf(deployment, nextNumber())));
  }
  forgetOthers(deployment.id);
}

// What was answered is not answered again: the server may leave its question there.
void Agent::takeConfirmation(const ddi::Poll& poll) {
  const Answered<ddi::Deployment> answered = parts_.source.confirmation(poll.confirmation);
  if (!answered.document) {
    trouble_ = answered.sentence;
    return;
  }
  const ddi::Deployment& wanted = *answered.document;
  Action* const known = find(wanted.id);
  if (known == nullptr) {
    keep(add(actionToConfirm(wanted, nextNumber())));
  } else if (known->ending == Ending::Canceled || known->ending == Ending::Gone) {
    *known = actionToConfirm(wanted, known->number);
    keep(*known);
  }
  forgetOthers(wanted.id);
}

// One that is not known is taken back as well, or the server would have nothing else for the set.
void Agent::takeCancel(const ddi::Poll& poll) {
  const Answered<std::string> answered = parts_.source.cancel(poll.cancel);
  if (!answered.document) {
    trouble_ = answered.sentence;
    return;
  }
  Action* action = find(*answered.document);
  if (action == nullptr) {
    ddi::Deployment unknown;
    unknown.id = *answered.document;
    action = &add(actionOf(unknown, nextNumber()));
  }
  wantCancel(*action);
  keep(*action);
  forgetOthers(action->id);
}

void Agent::sendAttributes(const std::string& address) {
  std::map<std::string, std::string> attributes = parts_.attributes;
  try {
    for (const auto& [name, version] : parts_.installer.versions()) {
      attributes["version." + name] = version;
    }
  } catch (const InstallerAway& away) {
    parts_.log(away.what());
    return;  // the server goes on asking
  }
  const Reply reply = parts_.source.attributes(address, attributes);
  if (reply.meaning != Meaning::Good) {
    parts_.log(reply.sentence);
  }
}

void Agent::visitInstalled(const std::string& address) {
  if (address != visited_ && parts_.source.installed(address).meaning == Meaning::Good) {
    visited_ = address;
  }
}

// The server offers one action; another that has not begun is not wanted any more. An end that was not
// told yet is still told: the server says what it thinks of that.
void Agent::forgetOthers(const std::string& offered) {
  for (Action& action : actions_) {
    if (action.id != offered && !action.isOver() && !hasAsked(action)) {
      forget(action);
      keep(action);
    }
  }
}

Action* Agent::find(const std::string& id) {
  const auto found =
      std::find_if(actions_.begin(), actions_.end(), [&id](const Action& one) { return one.id == id; });
  return found != actions_.end() ? &*found : nullptr;
}

Action& Agent::add(Action action) {
  actions_.push_back(std::move(action));
  return actions_.back();
}

std::uint64_t Agent::nextNumber() const {
  return actions_.empty() ? 1 : actions_.back().number + 1;
}

bool Agent::keep(Action& action) {
  condense(action);
  const int error = parts_.files.keep(action);
  if (error != 0) {
    trouble_ = "The action " + action.id + " cannot be kept: " + base::errnoText(error) + ".";
    parts_.log(trouble_);
  }
  parts_.changed(*this);
  return error == 0;
}

std::string Agent::asks(const Action& action) const {
  switch (nextStep(action, parts_.configuration.consent).step) {
    case Step::AskConfirmation:
      return parts_.configuration.confirm == ConfirmPolicy::Ask ? "confirm" : "";
    case Step::AskConsent:
      return std::any_of(action.components.begin(), action.components.end(),
                         [](const Component& one) { return one.stage == Stage::Wanted; })
                 ? "download"
                 : "update";
    default:
      return "";
  }
}

bool Agent::consent(const std::string& id, bool isYes) {
  Action* const action = find(id);
  const std::string what = action != nullptr ? asks(*action) : "";
  if (what.empty()) {
    return false;
  }
  const Action before = *action;
  if (what == "confirm") {
    confirm(*action, isYes);
  } else {
    action->consent = isYes ? Consent::Given : Consent::Declined;
  }
  const bool isKept = keep(*action);
  if (!isKept) {
    *action = before;
  }
  return isKept;
}

// What was handed over is followed to its end, and told.
bool Agent::mayWork(const Action& action) const {
  return action.isOver() || hasAsked(action) || parts_.source.stands(action.id);
}

void Agent::work(Action& action) {
  for (int steps = 0; steps < kMostSteps && mayWork(action); ++steps) {
    const NextStep step = nextStep(action, parts_.configuration.consent);
    try {
      const Next next = perform(action, step);
      if (needsInstaller(step.step)) {
        awaySince_.reset();
      }
      if (next == Next::LeaveIt || !keep(action)) {
        return;
      }
    } catch (const InstallerAway& away) {
      trouble_ = away.what();
      takeAbsence(action, step, away.what());
      return;
    } catch (const Changed&) {  // the poll has kept it
    }
  }
}

// It is waited for, but not for ever: the server is to know.
void Agent::takeAbsence(Action& action, const NextStep& step, const std::string& sentence) {
  awaySince_ = awaySince_.value_or(parts_.now());
  if (parts_.now() - *awaySince_ < kLongestAbsence) {
    return;
  }
  fail(action.components[step.component], "For a day nothing could be updated. " + sentence,
       "See what the update service is at: systemctl status fw-updated.");
  awaySince_.reset();
  if (keep(action)) {
    work(action);
  }
}

Agent::Next Agent::perform(Action& action, const NextStep& step) {
  switch (step.step) {
    case Step::Rest:
    case Step::Wait:
    case Step::AskConsent:
      return Next::LeaveIt;
    case Step::SendCancelAnswer:
      return sendCancelAnswer(action);
    case Step::AskConfirmation:
      return askConfirmation(action);
    case Step::SendConfirmation:
      return sendConfirmation(action);
    case Step::Conclude:
      conclude(action);
      return Next::GoOn;
    case Step::SendEnd:
      return sendEnd(action);
    case Step::TellDownload:
      return tellOnce(action, &Action::toldDownload, Execution::Download, {});
    case Step::Download:
      return download(action, action.components[step.component]);
    case Step::Check:
      return check(action.components[step.component]);
    case Step::TellDownloaded:
      return tellDownloaded(action);
    case Step::TellProceeding:
      return tellOnce(action, &Action::toldProceeding, Execution::Proceeding, {});
    case Step::FollowInstall:
      return followInstall(action.components[step.component]);
    case Step::AskInstall:
      return askInstall(action, action.components[step.component]);
  }
  return Next::LeaveIt;
}

ddi::Feedback Agent::feedback(Execution execution, Finished finished,
                              std::vector<std::string> details) const {
  return {execution, finished, std::nullopt, std::move(details), std::int64_t{std::time(nullptr)} * 1000};
}

Agent::Next Agent::sendCancelAnswer(Action& action) {
  const bool isAccepted = action.cancel == Cancel::Accepting;
  const Reply reply = parts_.source.answerCancel(
      action.id, isAccepted ? feedback(Execution::Closed, Finished::Success, {"The set stops here."})
                            : feedback(Execution::Rejected, Finished::None,
                                       {"It is too late: components are being updated, or were updated."}));
  if (reply.meaning == Meaning::Later || reply.meaning == Meaning::Refused) {
    trouble_ = reply.sentence;
    return Next::LeaveIt;
  }
  cancelAnswered(action);
  return Next::GoOn;
}

Agent::Next Agent::askConfirmation(Action& action) {
  if (parts_.configuration.confirm == ConfirmPolicy::Ask) {
    return Next::LeaveIt;
  }
  confirm(action, parts_.configuration.confirm == ConfirmPolicy::Yes);
  return Next::GoOn;
}

Agent::Next Agent::sendConfirmation(Action& action) {
  const bool isConfirmed = action.confirmation == Confirmation::Confirming;
  const Reply reply = parts_.source.confirm(action.id, isConfirmed, {});
  if (reply.meaning == Meaning::Later || reply.meaning == Meaning::Refused) {
    trouble_ = reply.sentence;
    return Next::LeaveIt;
  }
  action.confirmation = isConfirmed ? Confirmation::Answered : Confirmation::Denied;
  pollNow();  // the deployment is there now
  return Next::GoOn;
}

Agent::Next Agent::sendEnd(Action& action) {
  const Finished finished = action.ending == Ending::Success ? Finished::Success : Finished::Failure;
  Reply reply = parts_.source.tell(action.id, feedback(Execution::Closed, finished, messagesOf(action)));
  if (reply.meaning == Meaning::Mistake) {
    reply = parts_.source.tell(action.id, feedback(Execution::Closed, finished, {kPlainEnd}));
  }
  if (reply.meaning == Meaning::Later || reply.meaning == Meaning::Refused) {
    trouble_ = reply.sentence;
    return Next::LeaveIt;
  }
  if (reply.meaning == Meaning::Mistake) {
    parts_.log("The server refuses the end of the action " + action.id + ". " + reply.sentence);
  }
  action.isReported = true;
  return Next::GoOn;
}

// Noted first: what gets lost is not told again.
Agent::Next Agent::tellOnce(Action& action, bool Action::*told, Execution execution,
                            const std::vector<std::string>& details) {
  action.*told = true;
  if (!keep(action)) {
    return Next::LeaveIt;
  }
  if (parts_.source.tell(action.id, feedback(execution, Finished::None, details)).meaning == Meaning::Gone) {
    forget(action);
  }
  return Next::GoOn;
}

// The server ends an action that is to be downloaded alone by this word.
Agent::Next Agent::tellDownloaded(Action& action) {
  if (!mustArrive(action, Step::TellDownloaded)) {
    return tellOnce(action, &Action::toldDownloaded, Execution::Downloaded, {});
  }
  const Reply reply = parts_.source.tell(action.id, feedback(Execution::Downloaded, Finished::None, {}));
  if (reply.meaning == Meaning::Later || reply.meaning == Meaning::Refused) {
    trouble_ = reply.sentence;
    return Next::LeaveIt;
  }
  action.toldDownloaded = true;
  return Next::GoOn;
}

// What is there already needs no download, and what the set does not have gets none. False when something
// of the action changed.
bool Agent::prepare(Action& action) {
  std::int64_t needed = 0;
  for (Component& component : action.components) {
    if (component.stage != Stage::Wanted) {
      continue;
    }
    const auto version = parts_.installer.versionOf(component.name);
    if (!version) {
      fail(component, "The set has no component " + component.name + ".",
           "Name the software module as the set names its firmware: fw-update list.");
      return false;
    }
    if (*version == component.version) {
      component.stage = Stage::Installed;
      return false;
    }
    for (const ddi::Artifact& artifact : component.artifacts) {
      if (const std::string refusal = refusalOfSize(artifact, parts_.configuration); !refusal.empty()) {
        fail(component, artifact.fileName + ": " + refusal, kCorrectAddress);
        return false;
      }
      needed += std::max<std::int64_t>(*artifact.size - parts_.store.received(artifact.sha256), 0);
    }
  }
  Component& first = *std::find_if(action.components.begin(), action.components.end(),
                                   [](const Component& one) { return one.stage == Stage::Wanted; });
  if (isLarger(action, parts_.configuration.largestAction)) {
    fail(first,
         "The artifacts of the action have more than the " +
             std::to_string(parts_.configuration.largestAction) + " bytes that are allowed together.",
         kSmallerAction);
    return false;
  }
  try {
    parts_.store.requireSpace(needed);
    return true;
  } catch (const StoreFailure& failure) {
    fail(first, failure.what(), kFreeSpace);
    return false;
  }
}

Agent::Next Agent::download(Action& action, Component& component) {
  if (!prepare(action)) {
    return Next::GoOn;
  }
  const std::vector<ddi::Artifact> artifacts = component.artifacts;  // a poll meanwhile gives others
  for (const ddi::Artifact& artifact : artifacts) {
    if (!parts_.store.has(artifact.sha256, *artifact.size) && !fetch(action, component, artifact)) {
      return component.stage == Stage::Failed ? Next::GoOn : Next::LeaveIt;
    }
  }
  component.stage = Stage::Downloaded;
  return Next::GoOn;
}

// False when it has not come. The server is asked meanwhile, so that it can stop this.
bool Agent::fetch(Action& action, Component& component, const ddi::Artifact& artifact) {
  const std::string before = textOf(action);
  const auto goOn = [&] {
    if (pollWhenDue() && textOf(action) != before) {
      throw Changed();
    }
  };
  for (int poor = 0;;) {
    const std::int64_t receivedBefore = parts_.store.received(artifact.sha256);
    const Downloaded downloaded = parts_.downloader.download(artifact, goOn);
    if (downloaded.end == Download::Whole) {
      return true;
    }
    // A connection that broke after it had brought something is made again at once, but not for ever.
    const std::int64_t brought = parts_.store.received(artifact.sha256) - receivedBefore;
    poor = brought < kPoor ? poor + 1 : 0;
    if (downloaded.end == Download::Later && brought > 0 && poor < kMostPoorConnections) {
      continue;
    }
    if (!takeFailure(component, artifact, downloaded)) {
      return false;
    }
  }
}

// Whether it is to be tried again at once.
bool Agent::takeFailure(Component& component, const ddi::Artifact& artifact, const Downloaded& downloaded) {
  const auto failed = [&](const char* remedy) {
    fail(component, artifact.fileName + ": " + downloaded.sentence, remedy);
    attempts_.erase(artifact.sha256);
    return false;
  };
  trouble_ = downloaded.sentence;
  switch (downloaded.end) {
    case Download::Wrong:
      return ++attempts_[artifact.sha256] < kMostAttemptsAtArtifact
                 ? true
                 : failed("Upload the artifact once more, or see what changes it on its way.");
    case Download::Missing:  // at one poll after the other: it may be on its way
      return ++attempts_[artifact.sha256] < kMostAttemptsAtArtifact
                 ? false
                 : failed("Check that the server has the artifact.");
    case Download::NoSpace:
      return failed(kFreeSpace);
    case Download::Never:
      return failed(kCorrectAddress);
    default:
      return false;
  }
}

Agent::Next Agent::check(Component& component) {
  if (!hasArtifacts(parts_.store, component)) {  // somebody removed them
    component.stage = Stage::Wanted;
    return Next::GoOn;
  }
  const OpenFiles open = opened(parts_.store, component);
  const Checked checked = parts_.check(component.name, open.files);
  if (checked.sentence.empty()) {
    component.stage = Stage::Checked;
  } else {
    fail(component, checked.sentence, checked.remedy);
  }
  return Next::GoOn;
}

Agent::Next Agent::askInstall(Action& action, Component& component) {
  if (!hasArtifacts(parts_.store, component)) {
    component.stage = Stage::Wanted;
    return Next::GoOn;
  }
  const std::uint64_t jobBefore =
      parts_.installer.lastEnded(component.name);  // one that ends now is seen below
  ask(component, jobBefore, parts_.installer.versionOf(component.name).value_or(""));
  if (component.stage != Stage::Asked) {
    return Next::GoOn;
  }
  if (!keep(action)) {
    component.stage = Stage::Checked;
    return Next::LeaveIt;
  }
  const OpenFiles open = opened(parts_.store, component);
  const Kind kind = kindOf(open.files).value_or(Kind::Package);  // it was checked
  try {
    const HandedOver handedOver = parts_.installer.ask(component.name, kind, open.files);
    if (!handedOver.sentence.empty()) {
      fail(component, handedOver.sentence, handedOver.remedy);
    }
  } catch (const InstallerBusy&) {
    askLater(component);
    keep(action);
    throw;
  }
  return Next::GoOn;
}

Agent::Next Agent::followInstall(Component& component) {
  const Followed followed = parts_.installer.follow(component.name, component.jobBefore, pause());
  if (!followed.end) {
    return Next::LeaveIt;
  }
  settle(component, *followed.end, parts_.installer.versionOf(component.name).value_or(""), followed.sentence,
         followed.remedy);
  return Next::GoOn;
}

// Artifacts that no open action needs, and the oldest of the actions that are over.
void Agent::clean() {
  std::set<std::string> needed;
  for (const Action& action : actions_) {
    if (!action.isOver()) {
      needed.merge(hashesOf(action));
    }
  }
  try {
    parts_.store.removeOthers(needed);
  } catch (const StoreFailure& failure) {
    parts_.log(failure.what());
  }
  const std::vector<Action> all(actions_.begin(), actions_.end());
  parts_.files.prune(all, kMostEnded);
  std::size_t over = 0;
  for (auto action = actions_.end(); action != actions_.begin();) {
    --action;
    if (action->isOver() && action->isReported && ++over > kMostEnded) {
      action = actions_.erase(action);
    }
  }
}

}  // namespace fleet
