// SPDX-License-Identifier: Apache-2.0
// How fw-trace ends.
#ifndef FW_TRACE_OUTCOME_H
#define FW_TRACE_OUTCOME_H

#include "frame/outcome.h"

namespace tracetool {

enum class Outcome { Ok, Unexpected, Usage, NothingFound, Unreadable };

inline constexpr frame::OutcomeInfo kOutcomes[] = {
    {"ok", 0, "answered", frame::Tone::Answer},
    {"unexpected-error", 1, "unexpected error", frame::Tone::Failure},
    {"usage", 2, "usage", frame::Tone::Failure},
    {"nothing-found", 3, "nothing found", frame::Tone::Failure},
    {"unreadable", 4, "cannot be read", frame::Tone::Failure},
};

constexpr const frame::OutcomeInfo& infoOf(Outcome outcome) {
  return kOutcomes[static_cast<std::size_t>(outcome)];
}

}  // namespace tracetool

#endif
