// fw-device init: lays out a device and installs the example modules and images.
#ifndef FW_DEVICE_INITIALISE_H
#define FW_DEVICE_INITIALISE_H

#include "command-line.h"
#include "exit-code.h"

namespace fwdevice {

// Prints what the device has. Throws Failure or std::system_error.
ExitCode initialise(const CommandLine& line);

}  // namespace fwdevice

#endif
