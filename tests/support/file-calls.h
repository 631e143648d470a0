// SPDX-License-Identifier: Apache-2.0
// Writes down in which order a program puts files on the disk and gives them names. A
// test program that links this takes the place of a few functions of the C library;
// each does what it always does. For one thread.
#ifndef FILE_CALLS_H
#define FILE_CALLS_H

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace filecalls {

// "sync NAME", "truncate NAME", "rename NAME NAME", "unlink NAME"; of a file that is open, or
// that a path names, the last part of its path.
std::vector<std::string>& made();

// In place of the effective user, when set.
extern std::optional<uid_t> user;

// The next call that begins with this text fails with EIO.
extern std::string fails;

// Runs before each call that is written down, but not for its own.
extern std::function<void(const std::string& call)> before;

void reset();

}  // namespace filecalls

#endif
