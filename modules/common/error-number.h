// SPDX-License-Identifier: Apache-2.0
// What an exception means as an errno value. Called inside a catch block.
#ifndef MODULES_COMMON_ERROR_NUMBER_H
#define MODULES_COMMON_ERROR_NUMBER_H

namespace fwcomponent {

int currentErrorNumber() noexcept;

}  // namespace fwcomponent

#endif
