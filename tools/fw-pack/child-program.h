// SPDX-License-Identifier: Apache-2.0
// Runs another program to its end. One thread; errors are thrown as Failure.
#ifndef FW_PACK_CHILD_PROGRAM_H
#define FW_PACK_CHILD_PROGRAM_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace fwpack {

// Where mksquashfs and unsquashfs come from.
inline constexpr char kSquashfsTools[] = "squashfs-tools";

// Whether it ended with 0. What it writes to standard output goes to output, what it
// writes to standard error is dropped. arguments[0] is looked up in PATH; package
// is where it comes from, for the sentence when it is missing.
bool runProgram(const std::vector<std::string>& arguments, const char* package,
                const std::function<void(std::string_view bytes)>& output);

}  // namespace fwpack

#endif
