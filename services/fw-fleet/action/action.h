// SPDX-License-Identifier: Apache-2.0
// One action of the fleet's server, as far as it got on this set: what is kept over restarts and
// power cuts, and how it changes. What is intended is kept before it is done, and what came of it
// before it is told. Plain values and functions; any thread.
#ifndef FW_FLEET_ACTION_H
#define FW_FLEET_ACTION_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "documents.h"

namespace fleet {

// How often a component is asked to be updated when nobody knows how it ended.
inline constexpr int kMostAttempts = 3;

enum class Stage {
  Wanted,
  Downloaded,  // all artifacts lie here, as large as they should be and with the right hashes
  Checked,     // signed for this set, and its component is known
  Asked,       // the update service was asked to install it, or was about to be
  Installed,   // the component itself reports the version
  Failed,
};

enum class Consent { None, Given, Declined };

// Confirming and Denying are decided and still to be sent; after Answered, that is confirmed, and Denied the
// server has its turn.
enum class Confirmation { None, Wanted, Confirming, Denying, Answered, Denied };

// Both are decided and still to be sent.
enum class Cancel { None, Accepting, Refusing };

enum class Ending {
  None,
  Success,
  Failure,
  Canceled,
  Gone,  // the server knows it no more, or ended it itself
};

struct Component {
  std::string name;
  std::string version;
  std::vector<ddi::Artifact> artifacts;
  Stage stage = Stage::Wanted;
  int attempts = 0;
  std::string versionBefore;
  std::uint64_t jobBefore = 0;  // the last that was over when it was asked
  std::string sentence;         // when it failed
  std::string remedy;
};

struct Action {
  std::string id;
  std::uint64_t number = 0;  // of this set, in the order they came
  ddi::Handling download = ddi::Handling::Skip;
  ddi::Handling update = ddi::Handling::Skip;
  ddi::Window window = ddi::Window::None;
  std::vector<Component> components;
  std::string problem;  // why it cannot be done as it was offered
  Consent consent = Consent::None;
  Confirmation confirmation = Confirmation::None;
  Cancel cancel = Cancel::None;
  bool toldDownload = false;
  bool toldDownloaded = false;
  bool toldProceeding = false;
  Ending ending = Ending::None;
  bool isReported = false;
  // Of one that is over and reported: in the place of its artifacts, what later offers are compared with.
  std::string content;

  bool isOver() const { return ending != Ending::None; }
  // Its server ends it by itself once it is downloaded.
  bool isDownloadOnly() const { return update == ddi::Handling::Skip && window == ddi::Window::None; }
};

Action actionOf(const ddi::Deployment& deployment, std::uint64_t number);
Action actionToConfirm(const ddi::Deployment& wanted, std::uint64_t number);

// The server offers the action, once more: with other words about when, with other content, or
// although it was closed.
void offer(Action& action, const ddi::Deployment& deployment);

// Leaves out of an action that is over and reported what nothing is done with any more. Whether there was
// something.
bool condense(Action& action);

// Whether the action is this one, as it was offered, and was brought to an end by this set.
bool hasCarriedOut(const Action& action, const ddi::Deployment& deployment);

// The server takes it back. Too late once a component was asked to be updated.
void wantCancel(Action& action);
void cancelAnswered(Action& action);

void confirm(Action& action, bool isConfirmed);

// The server knows the action no more.
void forget(Action& action);

void fail(Component& component, const std::string& sentence, const std::string& remedy);

// To be kept before the update service is asked. What already reports its version is installed.
void ask(Component& component, std::uint64_t jobBefore, const std::string& versionNow);
// It took nothing, so nothing was interrupted either.
void askLater(Component& component);

enum class JobEnd {
  Unknown,  // there is no such job any more, or it was interrupted
  Updated,
  NotNeeded,  // the module saw nothing to do
  Failed,
};

// After the job is over, or lost: the component's own version decides what is true.
void settle(Component& component, JobEnd end, const std::string& versionNow, const std::string& sentence,
            const std::string& remedy);

// From how its components stand; a refusal of its owner counts as a failure.
void conclude(Action& action);

// What the server is told of the end.
std::vector<std::string> messagesOf(const Action& action);

}  // namespace fleet

#endif
