#include "live-line.h"

#include <unistd.h>

#include <iostream>

#include "clean-output.h"
#include "terminal.h"

namespace tool {

LiveLine::LiveLine() : shown_(isTerminal(STDERR_FILENO)) {}

LiveLine::~LiveLine() {
  show("");
}

void LiveLine::show(const std::string& text) {
  if (shown_) {
    std::cerr << base::emptyLine() << text.substr(0, terminalWidth(STDERR_FILENO) - 1) << std::flush;
  }
}

}  // namespace tool
