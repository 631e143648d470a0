// What fw-device's exit code says, and the error that carries one to main. With
// run and shell, a command that was started gives its own exit code.
#ifndef FW_DEVICE_EXIT_CODE_H
#define FW_DEVICE_EXIT_CODE_H

#include <stdexcept>
#include <string>

namespace fwdevice {

enum class ExitCode {
  Done = 0,
  Failed = 1,
  Usage = 2,
  NoDevice = 3,
  NotEntered = 4,
  NotExecutable = 126,  // as shells say it
  NotFound = 127,
};

class Failure : public std::runtime_error {
 public:
  Failure(ExitCode code, const std::string& sentence) : std::runtime_error(sentence), code_(code) {}
  ExitCode code() const { return code_; }

 private:
  ExitCode code_;
};

}  // namespace fwdevice

#endif
