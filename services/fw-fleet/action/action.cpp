// SPDX-License-Identifier: Apache-2.0
#include "action.h"

#include <algorithm>
#include <utility>

#include "text-digest.h"

namespace fleet {
namespace {

// Its firmware may be another one by now. One that has its version from before was not touched, nor one
// that was interrupted and reports its old version.
bool hasBegun(const Component& component) {
  return component.stage == Stage::Asked || (component.attempts > 0 && (component.stage == Stage::Installed ||
                                                                        component.stage == Stage::Failed));
}

bool hasBegun(const Action& action) {
  return std::any_of(action.components.begin(), action.components.end(),
                     [](const Component& component) { return hasBegun(component); });
}

std::vector<Component> componentsOf(const ddi::Deployment& deployment) {
  std::vector<Component> components;
  for (const ddi::Chunk& chunk : deployment.chunks) {
    Component component;
    component.name = chunk.name;
    component.version = chunk.version;
    component.artifacts = chunk.artifacts;
    components.push_back(std::move(component));
  }
  return components;
}

bool isSame(const ddi::Artifact& one, const ddi::Artifact& other) {
  return one.fileName == other.fileName && one.size == other.size && one.sha256 == other.sha256;
}

bool isSame(const Component& component, const ddi::Chunk& chunk) {
  return component.name == chunk.name && component.version == chunk.version &&
         std::equal(component.artifacts.begin(), component.artifacts.end(), chunk.artifacts.begin(),
                    chunk.artifacts.end(),
                    [](const auto& one, const auto& other) { return isSame(one, other); });
}

// Each text has its length before it, so that no two contents are the same text.
void add(std::string& text, const std::string& part) {
  text += std::to_string(part.size()) + ":" + part;
}

// What isSame compares; parts: components or chunks.
template <typename Parts>
std::string contentOf(const Parts& parts) {
  std::string text;
  for (const auto& part : parts) {
    add(text, part.name);
    add(text, part.version);
    text += std::to_string(part.artifacts.size()) + ";";
    for (const ddi::Artifact& artifact : part.artifacts) {
      add(text, artifact.fileName);
      add(text, artifact.size ? std::to_string(*artifact.size) : "");
      add(text, artifact.sha256);
    }
  }
  return sha256Of(text);
}

bool isSame(const Action& action, const ddi::Deployment& deployment) {
  if (!action.content.empty()) {
    return action.content == contentOf(deployment.chunks);
  }
  return std::equal(
      action.components.begin(), action.components.end(), deployment.chunks.begin(), deployment.chunks.end(),
      [](const Component& component, const ddi::Chunk& chunk) { return isSame(component, chunk); });
}

// Nothing was installed for it, and its server wants it after all.
void beginAgain(Action& action) {
  action.ending = Ending::None;
  action.isReported = action.toldDownload = action.toldDownloaded = action.toldProceeding = false;
  action.cancel = Cancel::None;
  action.consent = Consent::None;
  for (Component& component : action.components) {
    if (component.stage != Stage::Asked && component.stage != Stage::Installed) {
      component.stage = Stage::Wanted;
      component.attempts = 0;
      component.sentence = component.remedy = "";
    }
  }
}

void takeWords(Action& action, const ddi::Deployment& deployment) {
  action.download = deployment.download;
  action.update = deployment.update;
  action.window = deployment.window;
  action.confirmation = Confirmation::None;
  action.content.clear();
  for (std::size_t number = 0; number < action.components.size(); ++number) {
    action.components[number].artifacts = deployment.chunks[number].artifacts;  // addresses change
  }
}

}  // namespace

Action actionOf(const ddi::Deployment& deployment, std::uint64_t number) {
  Action action;
  action.id = deployment.id;
  action.number = number;
  action.download = deployment.download;
  action.update = deployment.update;
  action.window = deployment.window;
  action.components = componentsOf(deployment);
  action.problem = deployment.problem;
  return action;
}

Action actionToConfirm(const ddi::Deployment& wanted, std::uint64_t number) {
  Action action = actionOf(wanted, number);
  action.confirmation = Confirmation::Wanted;
  return action;
}

void offer(Action& action, const ddi::Deployment& deployment) {
  if (!isSame(action, deployment)) {
    if (action.isOver() || !hasBegun(action)) {  // the number is used for something else by now
      action = actionOf(deployment, action.number);
    } else {
      action.problem = "The server changed the action while it was being installed.";
    }
    return;
  }
  takeWords(action, deployment);
  if (action.ending == Ending::Canceled || action.ending == Ending::Gone) {
    beginAgain(action);
  } else if (action.isOver()) {
    action.isReported = false;  // what was told got lost
  }
}

bool condense(Action& action) {
  if (!action.isOver() || !action.isReported || !action.content.empty()) {
    return false;
  }
  action.content = contentOf(action.components);
  if (action.content.empty()) {
    return false;
  }
  for (Component& component : action.components) {
    component.artifacts = std::vector<ddi::Artifact>();
  }
  return true;
}

bool hasCarriedOut(const Action& action, const ddi::Deployment& deployment) {
  return (action.ending == Ending::Success || action.ending == Ending::Failure) && isSame(action, deployment);
}

void wantCancel(Action& action) {
  if (action.cancel != Cancel::None) {
    return;
  }
  const bool isLate =
      hasBegun(action) || action.ending == Ending::Success || action.ending == Ending::Failure;
  action.cancel = isLate ? Cancel::Refusing : Cancel::Accepting;
}

void cancelAnswered(Action& action) {
  if (std::exchange(action.cancel, Cancel::None) == Cancel::Accepting) {
    action.ending = Ending::Canceled;
    action.isReported = true;
  }
}

void confirm(Action& action, bool isConfirmed) {
  if (action.confirmation == Confirmation::Wanted) {
    action.confirmation = isConfirmed ? Confirmation::Confirming : Confirmation::Denying;
  }
}

void forget(Action& action) {
  action.cancel = Cancel::None;
  action.isReported = true;
  if (!action.isOver()) {
    action.ending = Ending::Gone;
  }
}

void fail(Component& component, const std::string& sentence, const std::string& remedy) {
  component.stage = Stage::Failed;
  component.sentence = sentence;
  component.remedy = remedy;
}

void ask(Component& component, std::uint64_t jobBefore, const std::string& versionNow) {
  if (versionNow == component.version) {
    component.stage = Stage::Installed;
    return;
  }
  component.stage = Stage::Asked;
  component.versionBefore = versionNow;
  component.jobBefore = jobBefore;
  ++component.attempts;
}

void askLater(Component& component) {
  component.stage = Stage::Checked;
  --component.attempts;
}

void settle(Component& component, JobEnd end, const std::string& versionNow, const std::string& sentence,
            const std::string& remedy) {
  if (end != JobEnd::Failed && versionNow == component.version) {
    component.stage = Stage::Installed;
  } else if (end == JobEnd::Failed || end == JobEnd::NotNeeded) {
    fail(component, sentence, remedy);
  } else if (end == JobEnd::Unknown && versionNow == component.versionBefore &&
             component.attempts < kMostAttempts) {
    component.stage = Stage::Checked;
  } else if (end == JobEnd::Unknown && versionNow == component.versionBefore) {
    fail(component,
         "The update of " + component.name + " was interrupted " + std::to_string(component.attempts) +
             " times.",
         "See why the set restarts, and offer the update again.");
  } else {
    fail(component,
         component.name + " reports version " + (versionNow.empty() ? "none" : versionNow) +
             " after its update, and not " + component.version + ".",
         "Check that the version in the action is that of its firmware.");
  }
}

void conclude(Action& action) {
  if (action.isOver()) {
    return;
  }
  const bool isDone = action.problem.empty() && !action.components.empty() &&
                      std::all_of(action.components.begin(), action.components.end(),
                                  [](const Component& one) { return one.stage == Stage::Installed; });
  action.ending = isDone ? Ending::Success : Ending::Failure;
}

std::vector<std::string> messagesOf(const Action& action) {
  std::vector<std::string> messages;
  const auto add = [&messages](const std::string& text) {
    if (!text.empty()) {
      messages.push_back(text);
    }
  };
  add(action.problem);
  for (const Component& component : action.components) {
    add(component.stage == Stage::Failed ? component.sentence : "");
    add(component.stage == Stage::Failed ? component.remedy : "");
  }
  if (messages.empty() && action.ending == Ending::Failure && action.consent == Consent::Declined) {
    add("The owner of the set declined.");
  }
  for (const Component& component : action.components) {
    const bool isInstalled = component.stage == Stage::Installed;
    add(component.name + (isInstalled ? " reports version " + component.version + "." : " was not updated."));
  }
  return messages;
}

}  // namespace fleet
