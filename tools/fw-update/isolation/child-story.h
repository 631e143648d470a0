// What a watched command is at, by what it has told. Pure: no clock, no process.
#ifndef FW_UPDATE_TOOL_CHILD_STORY_H
#define FW_UPDATE_TOOL_CHILD_STORY_H

#include <chrono>
#include <map>
#include <optional>
#include <string>

#include "isolation/told.h"
#include "library/library-log.h"

namespace tool {

class ChildStory {
 public:
  using Seconds = std::chrono::duration<double>;

  // module: the one that the command names; empty when it names none.
  explicit ChildStory(const std::string& module) : current_{Step::Start, module, ""} {}

  void add(const Told& told);

  Step step() const { return current_.step; }
  // The module whose turn it is; empty when it may be any.
  const std::string& module() const { return current_.module; }
  bool isAskedForProgress() const { return askedForProgress_; }
  bool hasUpdated(const std::string& library) const { return updated_.count(library) != 0; }
  // Since the last update of the library began to wait for the lock: the lock may be
  // this command's.
  bool hasUsedLock() const { return lockUsed_; }
  // Its result, as an exit code.
  std::optional<int> result() const { return exitCode_; }
  const LogMessages& log() const { return messages_; }

  // How long the next word may take; empty: for ever. patience: where the library sets
  // no limit of its own.
  std::optional<Seconds> allowedSilence(Seconds patience) const;

 private:
  void hear(const StepTold& told);
  void hear(const LogMessage& message);
  void hear(const ProgressTold& told) { askedForProgress_ = told.asking; }
  void hear(const ResultTold& told);
  void enter(Step step, const std::string& firmware);
  std::string libraryOfPackage(const LogMessage& message) const;

  StepTold current_;
  std::map<std::string, std::string> libraries_;  // by firmware name
  std::map<std::string, bool> updated_;
  bool askedForProgress_ = false;
  bool lockUsed_ = false;
  std::optional<unsigned int> givesUp_;  // seconds; of the update that is under way
  std::optional<int> exitCode_;
  LogMessages messages_;
};

// "while it wrote the firmware"
const char* wordsOf(Step step);
// The step's name in JSON.
const char* idOf(Step step);

}  // namespace tool

#endif
