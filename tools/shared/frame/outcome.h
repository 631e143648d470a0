// SPDX-License-Identifier: Apache-2.0
// How a command can end. Each program lists its outcomes in one table, which gives them
// their names in JSON, their exit codes and their words in help texts. Plain values.
#ifndef TOOLS_SHARED_FRAME_OUTCOME_H
#define TOOLS_SHARED_FRAME_OUTCOME_H

#include <cstddef>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace frame {

// How text for people tells it.
enum class Tone {
  Answer,   // what the command printed says it all
  Success,  // a sentence on standard output
  Notice,   // the same, and an exit code of its own
  Failure   // a sentence on standard error
};

struct OutcomeInfo {
  const char* id;       // in JSON
  int exitCode;         // 0: done; 2: the command line was wrong; others are the program's
  const char* meaning;  // of the exit code, in help texts; null when another outcome says it
  Tone tone;
};

// One outcome of any program. A program's own enumeration turns into it by itself, with
// the program's infoOf(Outcome), which returns a row of its table.
class Ending {
 public:
  template <typename Outcome, typename = std::enable_if_t<std::is_enum_v<Outcome>>>
  constexpr Ending(Outcome outcome) : info_(&infoOf(outcome)) {}  // NOLINT(google-explicit-constructor)

  constexpr const OutcomeInfo* operator->() const { return info_; }
  friend constexpr bool operator==(Ending one, Ending other) { return one.info_ == other.info_; }
  friend constexpr bool operator!=(Ending one, Ending other) { return one.info_ != other.info_; }

 private:
  const OutcomeInfo* info_;
};

// Carries an ending and its sentences out of a command.
class Failure : public std::runtime_error {
 public:
  Failure(Ending ending, const std::string& sentence, std::string remedy = "")
      : std::runtime_error(sentence), ending_(ending), remedy_(std::move(remedy)) {}
  Ending ending() const { return ending_; }
  const std::string& remedy() const { return remedy_; }

 private:
  Ending ending_;
  std::string remedy_;
};

}  // namespace frame

#endif
