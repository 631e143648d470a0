// SPDX-License-Identifier: Apache-2.0
// The command's entries in the history of the set's updates. There is one record a process;
// what goes wrong with it changes nothing about the update. For the thread of the command.
#ifndef FW_UPDATE_TOOL_UPDATE_RECORD_H
#define FW_UPDATE_TOOL_UPDATE_RECORD_H

#include <map>
#include <memory>
#include <string>

#include "command-line.h"
#include "frame/report.h"
#include "history.h"
#include "library/library-log.h"
#include "update-all/run-reporter.h"

namespace tool {

class UpdateRecord {
 public:
  static UpdateRecord& instance();

  // Nothing is recorded of commands that update nothing. Before the process loads a module or
  // has a child: both have the entry then, and whoever knows its end writes it.
  void begin(const std::string& command, const Options& options);
  // The module is to be updated, soon or now; what it takes is looked at now.
  void moduleIsDue(const std::string& module, const std::string& firmware, const std::string& version);
  // Its turn in a run over several.
  void moduleBegins(const std::string& module);
  void moduleEnded(const std::string& module, const Finding& finding);
  // The command's own end, and what is told only then. Adds to the report what is to be said of the history.
  void end(frame::Report& report, const LogMessages& log);

 private:
  struct Part {
    history::Attempt attempt;
    history::Entry entry;
    bool hasBegun = false;
  };

  UpdateRecord() = default;
  Part& partOf(const std::string& module);
  void endDownload(const Json::Value& told);
  void endPart(const Json::Value& told, const LogMessages& log);
  void endParts(const frame::Report& report, const LogMessages& log);
  std::string writeMetrics() const;
  void tellProblems(frame::Report& report) const;

  std::unique_ptr<history::History> history_;
  std::string problem_;  // of the settings
  std::string metricsFile_;
  UPDATE_TYPE place_ = UPDATE_TYPE_EMP;
  Part whole_;
  std::map<std::string, Part> parts_;  // by module
};

// The same reporter, and each module of the run in the history.
std::unique_ptr<RunReporter> recorded(std::unique_ptr<RunReporter> reporter);

}  // namespace tool

#endif
