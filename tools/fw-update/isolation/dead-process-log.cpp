// SPDX-License-Identifier: Apache-2.0
#include "isolation/dead-process-log.h"

#include <string>

#include "dlog.h"
#include "message.h"
#include "trace-store.h"
#include "trace/trace-settings.h"

namespace tool {
namespace {

LogMessage messageOf(const tracetool::Message& traced) {
  LogMessage message;
  message.priority = DLOG_ERROR_PRIORITY;
  message.file = traced.file;
  message.function = traced.function;
  message.line = traced.line;
  message.format = traced.format;
  message.text = traced.text;
  message.thread = static_cast<long>(traced.threadId);
  return message;
}

}  // namespace

LogMessages logOfDeadProcess(pid_t process) {
  LogMessages log;
  std::string unreadable;
  // By the time that their processes started: the last of this number is meant.
  for (tracetool::TraceFile& file :
       tracetool::loadTraces(fwplatform::trace::settingsFromEnvironment().directory, unreadable)) {
    if (!file.problem.empty() || file.trace.processId != static_cast<std::uint32_t>(process)) {
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
