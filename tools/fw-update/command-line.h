// SPDX-License-Identifier: Apache-2.0
// The command line: one table of commands with their options.
#ifndef FW_UPDATE_TOOL_COMMAND_LINE_H
#define FW_UPDATE_TOOL_COMMAND_LINE_H

#include <optional>
#include <string>
#include <vector>

#include "callers.h"
#include "frame/program.h"

namespace tool {

struct Options {
  std::string module;
  const fwcallers::Caller* caller = fwcallers::findCaller(fwcallers::kDefaultCaller);
  std::string version;  // verify
  std::string data;
  std::string directory;  // of USB packages; empty: the drive
  std::string keyFile;
  bool allowRollback = false;  // of USB packages
  bool json = false;
  bool ndjson = false;
  bool log = false;
  bool dryRun = false;
  std::vector<std::string> modules;  // download
  bool allModules = false;           // download
  bool wait = false;                 // download
  bool ignoreHidden = false;         // lock recover
  std::vector<std::string> words;    // explain
  std::string since;                 // history
  bool failedOnly = false;           // history
  unsigned int number = 0;           // history show: an update; watch, cancel: a job; 0: none is named
  bool isolated = false;
  unsigned int patience = 120;  // seconds; isolated

  bool service = false;  // the update service does it
  std::string bus;       // that it is on; empty: the system bus

  // As the command line has them.
  std::string callerName = fwcallers::kDefaultCaller;
  std::optional<std::string> givenData;
  std::string progress;

  // The text that reaches the module.
  std::string requestData() const { return caller->fixedData != nullptr ? caller->fixedData : data; }
};

const frame::Program<Options>& program();

}  // namespace tool

#endif
