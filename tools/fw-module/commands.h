// SPDX-License-Identifier: Apache-2.0
// The commands themselves, one source file each.
#ifndef FW_MODULE_COMMANDS_H
#define FW_MODULE_COMMANDS_H

#include "frame/report.h"
#include "options.h"

namespace fwmodule {

frame::Report runNew(const Options& options);
frame::Report runCheck(const Options& options);

}  // namespace fwmodule

#endif
