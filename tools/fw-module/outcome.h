// SPDX-License-Identifier: Apache-2.0
// How fw-module ends.
#ifndef FW_MODULE_OUTCOME_H
#define FW_MODULE_OUTCOME_H

#include "frame/outcome.h"

namespace fwmodule {

enum class Outcome { Ok, ErrorsFound, Usage, WarningsFound, NotPossible, Unexpected };

inline constexpr frame::OutcomeInfo kOutcomes[] = {
    {"ok", 0, "written, or clean", frame::Tone::Answer},
    {"errors-found", 1, "errors found", frame::Tone::Failure},
    {"usage", 2, "usage", frame::Tone::Failure},
    {"warnings-found", 3, "only warnings found", frame::Tone::Failure},
    {"not-possible", 4, "not possible here", frame::Tone::Failure},
    {"unexpected-error", 5, "unexpected error", frame::Tone::Failure},
};

constexpr const frame::OutcomeInfo& infoOf(Outcome outcome) {
  return kOutcomes[static_cast<std::size_t>(outcome)];
}

using frame::Failure;

}  // namespace fwmodule

#endif
