// How a command can end: one table gives each ending its name in JSON and its exit
// code. Failure carries one, and a sentence, to main.
#ifndef FW_MODULE_OUTCOME_H
#define FW_MODULE_OUTCOME_H

#include <stdexcept>
#include <string>

namespace fwmodule {

enum class Outcome { Ok, ErrorsFound, Usage, WarningsFound, NotPossible, Unexpected };

struct OutcomeInfo {
  Outcome outcome;
  const char* id;
  int exitCode;
};

inline constexpr OutcomeInfo kOutcomes[] = {
    {Outcome::Ok, "ok", 0},
    {Outcome::ErrorsFound, "errors-found", 1},
    {Outcome::Usage, "usage", 2},
    {Outcome::WarningsFound, "warnings-found", 3},
    {Outcome::NotPossible, "not-possible", 4},
    {Outcome::Unexpected, "unexpected-error", 5},
};

constexpr const OutcomeInfo& infoOf(Outcome outcome) {
  return kOutcomes[static_cast<unsigned int>(outcome)];
}

class Failure : public std::runtime_error {
 public:
  Failure(Outcome outcome, const std::string& sentence) : std::runtime_error(sentence), outcome_(outcome) {}
  Outcome outcome() const { return outcome_; }

 private:
  Outcome outcome_;
};

}  // namespace fwmodule

#endif
