// SPDX-License-Identifier: Apache-2.0
// Watches one update from other threads, as clients do: asks for progress, version and
// expected time again and again while doUpdate runs.
#ifndef FW_MODULE_CHECK_TRIALS_UPDATE_WATCH_H
#define FW_MODULE_CHECK_TRIALS_UPDATE_WATCH_H

#include <functional>
#include <string>
#include <vector>

#include "stage.h"

namespace fwmodule {

struct WatchedUpdate {
  int result = kThrew;                    // of doUpdate
  std::vector<unsigned int> percentages;  // in the order of the answers
  EntryPointSet asked = 0;
  EntryPointSet waited = 0;  // that were as good as silent while doUpdate ran
};

WatchedUpdate watchUpdate(const Stage& stage, const std::string& path, unsigned long crc,
                          const char* situation);

// For an update that began without progress of an earlier one.
void judgeProgress(const Stage& stage, const WatchedUpdate& update);

// What waited must wait "again" too, in further updates: a busy machine alone makes any
// answer late once.
void judgeWaits(const Stage& stage, const WatchedUpdate& update, const std::function<WatchedUpdate()>& again);

}  // namespace fwmodule

#endif
