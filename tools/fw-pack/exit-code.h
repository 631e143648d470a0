// SPDX-License-Identifier: Apache-2.0
// How fw-pack ends, and the error that carries an ending to main.
#ifndef FW_PACK_EXIT_CODE_H
#define FW_PACK_EXIT_CODE_H

#include <string>

#include "frame/outcome.h"

namespace fwpack {

enum class ExitCode { Done, Failed, Usage, Refused, Damaged };

inline constexpr frame::OutcomeInfo kExitCodes[] = {
    {"ok", 0, "done", frame::Tone::Answer},
    {"failed", 1, "failed", frame::Tone::Failure},
    {"usage", 2, "usage", frame::Tone::Failure},
    {"refused", 3, "refused (verify)", frame::Tone::Failure},  // no valid signature
    {"damaged", 4, "damaged (inspect)", frame::Tone::Failure},
};

constexpr const frame::OutcomeInfo& infoOf(ExitCode code) {
  return kExitCodes[static_cast<std::size_t>(code)];
}

using frame::Failure;

// Throws a Failure that ends with errno's text.
[[noreturn]] void failWithErrno(const std::string& sentence);

}  // namespace fwpack

#endif
