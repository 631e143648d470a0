// SPDX-License-Identifier: Apache-2.0
#include "next-step.h"

#include <algorithm>
#include <optional>

namespace fleet {
namespace {

using ddi::Handling;

std::optional<std::size_t> firstAt(const Action& action, Stage stage) {
  const auto found = std::find_if(action.components.begin(), action.components.end(),
                                  [stage](const Component& component) { return component.stage == stage; });
  if (found == action.components.end()) {
    return std::nullopt;
  }
  return static_cast<std::size_t>(found - action.components.begin());
}

bool areAllInstalled(const Action& action) {
  return std::all_of(action.components.begin(), action.components.end(),
                     [](const Component& component) { return component.stage == Stage::Installed; });
}

Step confirmationStep(Confirmation confirmation) {
  switch (confirmation) {
    case Confirmation::Wanted:
      return Step::AskConfirmation;
    case Confirmation::Confirming:
    case Confirmation::Denying:
      return Step::SendConfirmation;
    default:
      return Step::Wait;
  }
}

// Nothing when the owner need not be asked, or agreed.
std::optional<NextStep> consentStep(const Action& action, Handling handling, bool isWanted) {
  if (!isWanted || handling != Handling::Attempt || action.consent == Consent::Given) {
    return std::nullopt;
  }
  return NextStep{action.consent == Consent::Declined ? Step::Conclude : Step::AskConsent, 0};
}

std::optional<NextStep> downloadStep(const Action& action, ConsentPolicy policy) {
  const auto wanted = firstAt(action, Stage::Wanted);
  if (wanted && action.download == Handling::Skip) {
    return NextStep{Step::Wait, 0};
  }
  if (wanted) {
    if (const auto step = consentStep(action, action.download, policy == ConsentPolicy::Download)) {
      return step;
    }
    return action.toldDownload ? NextStep{Step::Download, *wanted} : NextStep{Step::TellDownload, 0};
  }
  if (const auto downloaded = firstAt(action, Stage::Downloaded)) {
    return NextStep{Step::Check, *downloaded};
  }
  return std::nullopt;
}

NextStep installStep(const Action& action, ConsentPolicy policy) {
  if (!action.toldDownloaded) {
    return {Step::TellDownloaded, 0};
  }
  if (action.update == Handling::Skip || action.window == ddi::Window::Unavailable) {
    return {Step::Wait, 0};
  }
  if (const auto step = consentStep(action, action.update, policy != ConsentPolicy::Never)) {
    return *step;
  }
  const auto checked = firstAt(action, Stage::Checked);
  return action.toldProceeding && checked ? NextStep{Step::AskInstall, *checked}
                                          : NextStep{Step::TellProceeding, 0};
}

}  // namespace

NextStep nextStep(const Action& action, ConsentPolicy policy) {
  if (action.cancel != Cancel::None) {
    return {Step::SendCancelAnswer, 0};
  }
  if (action.isOver()) {
    return {action.isReported ? Step::Rest : Step::SendEnd, 0};
  }
  if (action.confirmation != Confirmation::None) {
    return {confirmationStep(action.confirmation), 0};
  }
  // What is at work ends first, whatever the server says by now, so that the end tells of it.
  if (const auto asked = firstAt(action, Stage::Asked)) {
    return {Step::FollowInstall, *asked};
  }
  if (!action.problem.empty() || firstAt(action, Stage::Failed) || areAllInstalled(action)) {
    return {Step::Conclude, 0};
  }
  if (const auto step = downloadStep(action, policy)) {
    return *step;
  }
  return installStep(action, policy);
}

bool mustArrive(const Action& action, Step step) {
  switch (step) {
    case Step::SendCancelAnswer:
    case Step::SendConfirmation:
    case Step::SendEnd:
      return true;
    case Step::TellDownloaded:
      return action.isDownloadOnly();
    default:
      return false;
  }
}

}  // namespace fleet
