// SPDX-License-Identifier: Apache-2.0
#include <cstdlib>
#include <memory>
#include <string>

#include "checks.h"
#include "system-info.h"

namespace conformance {

Finding systemVersionHasModel() {
  char* value = nullptr;
  const int result = system_info_get_value_string(SYSTEM_INFO_SOFTWARE_VERSION, &value);
  if (result != 0 || value == nullptr) {
    return broken("the call returned " + std::to_string(result));
  }
  const std::unique_ptr<char, decltype(&std::free)> released(value, std::free);
  const std::string text = value;
  const auto dash = text.rfind('-');
  return dash != std::string::npos && dash > 0 ? kept() : broken("the version is \"" + text + "\"");
}

Finding systemRefusesUnknownKey() {
  char untouched = 0;
  char* value = &untouched;
  const int result = system_info_get_value_string(-1, &value);
  if (result >= 0) {
    return broken("key -1 is answered with " + std::to_string(result));
  }
  return value == &untouched ? kept() : broken("the value was changed although the call failed");
}

}  // namespace conformance
