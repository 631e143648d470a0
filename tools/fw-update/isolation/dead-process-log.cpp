// SPDX-License-Identifier: Apache-2.0
#include "isolation/dead-process-log.h"

#include <string>

#include "library/traced-message.h"
#include "trace-store.h"
#include "trace/trace-settings.h"

namespace tool {

LogMessages logOfDeadProcess(pid_t process) {
  LogMessages log;
  std::string unreadable;
  // By the time that their processes started: the last of this number is meant.
  for (tracetool::TraceFile& file :
       tracetool::loadTraces(fwplatform::trace::settingsFromEnvironment().directory, unreadable)) {
    if (file.trace.processId != static_cast<std::uint32_t>(process)) {
      continue;
    }
    log.clear();
    for (const tracetool::Message& traced : tracetool::messagesOf(file.trace)) {
      log.push_back(messageOf(traced));
    }
  }
  return log;
}

}  // namespace tool
