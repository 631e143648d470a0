#include "terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace tool {
namespace {

std::string_view environment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

constexpr const char* codeOf(Colour colour) {
  switch (colour) {
    case Colour::Green:
      return "\x1b[32m";
    case Colour::Yellow:
      return "\x1b[33m";
    case Colour::Red:
      return "\x1b[31m";
    case Colour::Bold:
      break;
  }
  return "\x1b[1m";
}

}  // namespace

bool isTerminal(int descriptor) {
  return isatty(descriptor) == 1 && environment("TERM") != "dumb";
}

std::size_t terminalWidth(int descriptor) {
  winsize size{};
  if (ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
    return size.ws_col;
  return isatty(descriptor) == 1 ? 80 : std::string::npos;
}

std::string coloured(const std::string& text, Colour colour, int descriptor) {
  if (!isTerminal(descriptor) || !environment("NO_COLOR").empty())
    return text;
  return codeOf(colour) + text + "\x1b[0m";
}

std::string printable(std::string text) {
  for (char& c : text)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
      c = '?';
  return text;
}

}  // namespace tool
