// SPDX-License-Identifier: Apache-2.0
#include "terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

#include "clean-output.h"

namespace tool {
namespace {

std::string_view environment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

base::Order orderFor(Colour colour) {
  switch (colour) {
    case Colour::Green:
      return base::Order::Green;
    case Colour::Yellow:
      return base::Order::Yellow;
    case Colour::Red:
      return base::Order::Red;
    case Colour::Bold:
      break;
  }
  return base::Order::Bold;
}

}  // namespace

bool isTerminal(int descriptor) {
  return isatty(descriptor) == 1 && environment("TERM") != "dumb";
}

std::size_t terminalWidth(int descriptor) {
  winsize size{};
  if (ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
    return size.ws_col;
  }
  return isatty(descriptor) == 1 ? 80 : std::string::npos;
}

std::string coloured(const std::string& text, Colour colour, int descriptor) {
  if (!isTerminal(descriptor) || !environment("NO_COLOR").empty()) {
    return text;
  }
  return base::terminalOrder(orderFor(colour)) + text + base::terminalOrder(base::Order::Plain);
}

}  // namespace tool
