// SPDX-License-Identifier: Apache-2.0
// A whole check of one module: its file, then the trials.
#ifndef FW_MODULE_CHECK_INSPECTION_H
#define FW_MODULE_CHECK_INSPECTION_H

#include <chrono>
#include <functional>
#include <string>

#include "report.h"

namespace fwmodule {

// "progress" hears what is being tried. Throws Failure when no trial can be made here. For
// a process with one thread.
Report inspect(Subject subject, std::chrono::seconds limit,
               const std::function<void(const std::string& what)>& progress);

}  // namespace fwmodule

#endif
