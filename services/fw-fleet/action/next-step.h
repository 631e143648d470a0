// SPDX-License-Identifier: Apache-2.0
// What is to be done next for an action, and nothing else: no clock, no file, no network. Stateless.
#ifndef FW_FLEET_NEXT_STEP_H
#define FW_FLEET_NEXT_STEP_H

#include <cstddef>

#include "action.h"

namespace fleet {

// For what the owner of the set is asked, where the server leaves it to him.
enum class ConsentPolicy {
  Never,
  Update,
  Download,  // and with that for the update
};

enum class Step {
  Rest,  // it is over, and the server knows
  Wait,  // for the server
  SendCancelAnswer,
  AskConfirmation,
  SendConfirmation,
  Conclude,
  SendEnd,
  AskConsent,
  TellDownload,
  Download,
  Check,
  TellDownloaded,
  TellProceeding,
  FollowInstall,
  AskInstall,
};

struct NextStep {
  Step step = Step::Rest;
  std::size_t component = 0;  // for Download, Check, FollowInstall and AskInstall
};

NextStep nextStep(const Action& action, ConsentPolicy policy);

// Whether what the step sends is sent until the server has it. All else that is told is noted before
// it is sent, and sent once at most.
bool mustArrive(const Action& action, Step step);

}  // namespace fleet

#endif
