// SPDX-License-Identifier: Apache-2.0
// The history's totals as a text file of Prometheus, for the node exporter. Plain functions;
// any thread.
#ifndef FW_HISTORY_METRICS_H
#define FW_HISTORY_METRICS_H

#include <optional>
#include <string>
#include <vector>

#include "history.h"

namespace history {

// lockTaken: the set's update lock; nothing when there is none yet.
std::string metricsOf(const std::vector<Total>& totals, std::optional<bool> lockTaken);

// A reader of the file sees the old text or the new one. Gives a sentence about what went
// wrong; empty when nothing did.
std::string writeMetrics(const std::string& path, const std::string& text);

}  // namespace history

#endif
