// What fw-pack's exit code says, and the error that carries one to main.
#ifndef FW_PACK_EXIT_CODE_H
#define FW_PACK_EXIT_CODE_H

#include <stdexcept>
#include <string>

namespace fwpack {

enum class ExitCode {
  Done = 0,
  Failed = 1,
  Usage = 2,
  Refused = 3,  // verify: no valid signature
};

class Failure : public std::runtime_error {
 public:
  Failure(ExitCode code, const std::string& sentence) : std::runtime_error(sentence), code_(code) {}
  ExitCode code() const { return code_; }

 private:
  ExitCode code_;
};

// Throws a Failure that ends with errno's text.
[[noreturn]] void failWithErrno(const std::string& sentence);

}  // namespace fwpack

#endif
