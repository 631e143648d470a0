// SPDX-License-Identifier: Apache-2.0
// How fw-device ends. With run and shell, a command that was started gives its own exit
// code.
#ifndef FW_DEVICE_OUTCOME_H
#define FW_DEVICE_OUTCOME_H

#include "frame/outcome.h"

namespace fwdevice {

enum class Outcome { Done, Failed, Usage, NoDevice, NotEntered, NotExecutable, NotFound };

inline constexpr frame::OutcomeInfo kOutcomes[] = {
    {"ok", 0, "done", frame::Tone::Answer},
    {"failed", 1, "failed", frame::Tone::Failure},
    {"usage", 2, "usage", frame::Tone::Failure},
    {"no-device", 3, "no device", frame::Tone::Failure},
    {"not-entered", 4, "device not entered", frame::Tone::Failure},
    {"not-executable", 126, "not executable", frame::Tone::Failure},  // as shells say it
    {"not-found", 127, "not found", frame::Tone::Failure},
};

constexpr const frame::OutcomeInfo& infoOf(Outcome outcome) {
  return kOutcomes[static_cast<std::size_t>(outcome)];
}

using frame::Failure;

}  // namespace fwdevice

#endif
