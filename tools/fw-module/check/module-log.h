// SPDX-License-Identifier: Apache-2.0
// What a module that is tried writes into the platform's log. It goes nowhere else: the trial's
// process is not the set. Any thread may write.
#ifndef FW_MODULE_CHECK_MODULE_LOG_H
#define FW_MODULE_CHECK_MODULE_LOG_H

#include <string>

namespace fwmodule {

// From here on: what was said before does not count.
void forgetReasons();

// Whether a failure was told as callers look for it: at error priority, under the library's
// tag, with the module's name, a colon and a space before it, and a text behind.
bool toldReason(const std::string& library);

}  // namespace fwmodule

#endif
