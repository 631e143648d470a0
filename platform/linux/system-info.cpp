// SPDX-License-Identifier: Apache-2.0
#include "system-info.h"

#include <cerrno>
#include <cstring>
#include <exception>
#include <string>

#include "os-release.h"

namespace {

int getSoftwareVersion(char** value) {
  std::string text;
  const int status = fwplatform::readSoftwareVersion(text);
  if (status != 0) {
    return status;
  }
  char* copy = strdup(text.c_str());
  if (copy == nullptr) {
    return -ENOMEM;
  }
  *value = copy;
  return 0;
}

}  // namespace

int system_info_get_value_string(int key, char** value) {
  if (value == nullptr) {
    return -EINVAL;
  }
  if (key != SYSTEM_INFO_SOFTWARE_VERSION) {
    return -ENOTSUP;
  }
  try {
    return getSoftwareVersion(value);
  } catch (const std::exception&) {
    return -ENOMEM;
  }
}
