// The text of an errno value, for messages. Any thread.
#ifndef PLATFORM_LINUX_ERRNO_TEXT_H
#define PLATFORM_LINUX_ERRNO_TEXT_H

#include <string>
#include <system_error>

namespace fwplatform {

inline std::string errnoText(int error) {
  return std::generic_category().message(error);
}

}  // namespace fwplatform

#endif
