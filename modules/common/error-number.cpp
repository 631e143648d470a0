// SPDX-License-Identifier: Apache-2.0
#include "error-number.h"

#include <cerrno>
#include <new>
#include <system_error>

namespace fwcomponent {

int currentErrorNumber() noexcept {
  try {
    throw;
  } catch (const std::system_error& error) {
    return error.code().value() > 0 ? error.code().value() : EIO;
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  } catch (...) {
    return EIO;
  }
}

}  // namespace fwcomponent
