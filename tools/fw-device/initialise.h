// SPDX-License-Identifier: Apache-2.0
// fw-device init: lays out a device and installs the example modules and images.
#ifndef FW_DEVICE_INITIALISE_H
#define FW_DEVICE_INITIALISE_H

#include "frame/report.h"
#include "options.h"

namespace fwdevice {

// Tells what the device has. Throws Failure or std::system_error.
frame::Report initialise(const Options& options);

}  // namespace fwdevice

#endif
