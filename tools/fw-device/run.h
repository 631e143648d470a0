// SPDX-License-Identifier: Apache-2.0
// fw-device run and fw-device shell: enter a device and become a program in it.
#ifndef FW_DEVICE_RUN_H
#define FW_DEVICE_RUN_H

#include "frame/report.h"
#include "options.h"

namespace fwdevice {

// Do not return. Throw Failure, when the program was not started.
[[noreturn]] frame::Report run(const Options& options);
[[noreturn]] frame::Report shell(const Options& options);

}  // namespace fwdevice

#endif
