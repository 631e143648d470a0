// fw-device run and fw-device shell: enter a device and become a program in it.
#ifndef FW_DEVICE_RUN_H
#define FW_DEVICE_RUN_H

#include "command-line.h"

namespace fwdevice {

// Do not return. Throw Failure, when the program was not started.
[[noreturn]] void run(const CommandLine& line);
[[noreturn]] void shell(const CommandLine& line);

}  // namespace fwdevice

#endif
