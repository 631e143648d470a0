// SPDX-License-Identifier: Apache-2.0
// The gate that everything passes that a program writes to std::cout and std::cerr: what
// is not safe to show is written as \xNN there (printable-text.h), wherever it came from.
// What the program itself tells the terminal goes through as an order.
#ifndef FW_BASE_CLEAN_OUTPUT_H
#define FW_BASE_CLEAN_OUTPUT_H

#include <string>

namespace base {

// Puts the gate before both streams, until the process ends. Call it first of all, once.
// Both streams may be written to from any thread, as before.
void cleanStandardOutput();

enum class Order { Green, Yellow, Red, Bold, Plain, LineStart, EraseToEnd };

// For a stream with the gate, in one piece: what makes the terminal do it. Only this
// process can write it: it holds a number that nobody else knows.
std::string terminalOrder(Order order);

// The line that the cursor is in is empty, the cursor at its start.
std::string emptyLine();

}  // namespace base

#endif
