// Makes texts of unknown origin safe to show: module texts reach terminals and
// log files through the platform log. Stateless; any thread.
#ifndef PLATFORM_LINUX_LOG_TEXT_H
#define PLATFORM_LINUX_LOG_TEXT_H

#include <string>
#include <string_view>

namespace fwplatform {

// The text with every control character (line feeds included) and every byte
// that is not part of valid UTF-8 written as \xNN, so that it stays on one line
// and cannot steer a terminal. Other text, backslashes included, stays as it is.
std::string PrintableText(std::string_view text);

}  // namespace fwplatform

#endif
