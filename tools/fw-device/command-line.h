// The command line of fw-device. Plain values.
#ifndef FW_DEVICE_COMMAND_LINE_H
#define FW_DEVICE_COMMAND_LINE_H

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "device-system.h"
#include "exit-code.h"

namespace fwdevice {

struct CommandLine {
  enum class Command { Init, Run, Shell };
  Command command = Command::Init;
  std::string directory;
  bool fresh = false;                     // init
  DeviceSystem system;                    // init: what to change of it
  std::vector<std::string> keepVisible;   // run, shell
  std::vector<std::string> keepWritable;  // run, shell
  std::vector<std::string> program;       // run: the command and its arguments
};

// The command line; or, when help was asked for or usage is wrong, the exit code:
// everything has been printed then.
std::variant<CommandLine, ExitCode> parseCommandLine(int argc, char** argv);

}  // namespace fwdevice

#endif
