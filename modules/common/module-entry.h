// SPDX-License-Identifier: Apache-2.0
// What a module of this folder is made of: its source defines thisComponent and
// doUpdate, and entry-points.cpp defines the other eight entry points for it.
#ifndef MODULES_COMMON_MODULE_ENTRY_H
#define MODULES_COMMON_MODULE_ENTRY_H

#include <cerrno>
#include <exception>

#include "component.h"
#include "error-number.h"
#include "fw-update-module.h"

namespace fwcomponent {

// The component that the module serves; callable from any thread.
Component& thisComponent();

// Runs an entry point's body, which may throw, and answers as an entry point
// must: 0, or a negative errno value that errno holds as well.
template <typename Body>
int answer(Body body) noexcept {
  try {
    body();
    return 0;
  } catch (...) {
    const int error = currentErrorNumber();
    errno = error;
    return -error;
  }
}

// The same for an update, whose reason goes into the platform's log, too.
template <typename Body>
int answerUpdate(Body body) noexcept {
  return answer([&] {
    try {
      body();
    } catch (const std::exception& error) {
      thisComponent().tellWhy(error);
      throw;
    }
  });
}

}  // namespace fwcomponent

#endif
