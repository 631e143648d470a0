// SPDX-License-Identifier: Apache-2.0
#include "progress/telling.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "terminal.h"

namespace tool {

Telling tellingOf(const Options& options) {
  if (options.ndjson) {
    return Telling::Events;
  }
  if (options.json) {
    return Telling::Document;
  }
  return hasLiveLine() ? Telling::Live : Telling::Lines;
}

bool hasLiveLine() {
  const char* sink = std::getenv("FW_UPDATE_LOG");
  const bool logInBetween = sink != nullptr && std::strcmp(sink, "stderr") == 0 && isatty(STDERR_FILENO) == 1;
  return isTerminal(STDOUT_FILENO) && !logInBetween;
}

}  // namespace tool
