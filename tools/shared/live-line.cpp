// SPDX-License-Identifier: Apache-2.0
#include "live-line.h"

#include <unistd.h>

#include <iostream>

#include "clean-output.h"

namespace tool {
namespace {

std::ostream& streamOf(int descriptor) {
  return descriptor == STDOUT_FILENO ? std::cout : std::cerr;
}

}  // namespace

LiveLine::LiveLine(int descriptor) : descriptor_(descriptor), isShown_(isTerminal(descriptor)) {}

LiveLine::~LiveLine() {
  clear();
}

std::size_t LiveLine::width() const {
  return terminalWidth(descriptor_) - 1;
}

void LiveLine::show(const std::string& text, std::optional<Colour> colour) {
  if (!isShown_) {
    return;
  }
  const std::string line = text.substr(0, width());
  streamOf(descriptor_) << base::terminalOrder(base::Order::LineStart)
                        << (colour ? coloured(line, *colour, descriptor_) : line)
                        << base::terminalOrder(base::Order::EraseToEnd) << std::flush;
  isDrawn_ = true;
}

void LiveLine::clear() {
  if (isDrawn_) {
    streamOf(descriptor_) << base::emptyLine() << std::flush;
  }
  isDrawn_ = false;
}

}  // namespace tool
