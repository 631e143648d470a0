// SPDX-License-Identifier: Apache-2.0
// Tells which moments of an update are worth a line of their own: another phase,
// ten percent more, overdue. One per update; used by one thread.
#ifndef FW_UPDATE_TOOL_MILESTONES_H
#define FW_UPDATE_TOOL_MILESTONES_H

#include <optional>

#include "progress/update-progress.h"

namespace tool {

// A shorter wait is the moment between two log messages, not another update.
inline constexpr double kNoticeableWait = 0.3;

class Milestones {
 public:
  bool reached(const UpdateProgress& progress) {
    if (progress.phase != Phase::Updating && progress.elapsed < kNoticeableWait) {
      return false;
    }
    const Key now{progress.phase, progress.percent.value_or(0) / 10, progress.overdue()};
    if (last_ && last_->phase == now.phase && last_->tens == now.tens && last_->overdue == now.overdue) {
      return false;
    }
    last_ = now;
    return true;
  }

 private:
  struct Key {
    Phase phase;
    unsigned int tens;
    bool overdue;
  };
  std::optional<Key> last_;
};

}  // namespace tool

#endif
