// SPDX-License-Identifier: Apache-2.0
// What standard output and standard error are connected to.
#ifndef TOOLS_SHARED_TERMINAL_H
#define TOOLS_SHARED_TERMINAL_H

#include <cstddef>
#include <string>

namespace tool {

// A terminal that understands cursor control.
bool isTerminal(int descriptor);

// Columns of the terminal behind the descriptor, 80 when it does not say; what
// is no terminal has no limit.
std::size_t terminalWidth(int descriptor);

enum class Colour { Green, Yellow, Red, Bold };

// The text in colour when the descriptor is a terminal and NO_COLOR is not set; for a
// stream that knows the orders (clean-output.h).
std::string coloured(const std::string& text, Colour colour, int descriptor);

}  // namespace tool

#endif
