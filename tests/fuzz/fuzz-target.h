// SPDX-License-Identifier: Apache-2.0
// What a fuzz target is: a source file that defines the two functions below. Two
// programs come of it: fuzz-NAME, driven by libFuzzer, and replay-NAME, an ordinary
// test that runs it over the files of its corpus.
#ifndef FUZZ_TARGET_H
#define FUZZ_TARGET_H

#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

// Called once, before anything else, while the process has one thread. visible: host
// paths that must stay reachable when the target enters a device. Throws
// std::exception when the target cannot run here.
void prepare(const std::vector<std::string>& visible);

// Gives the input to what is tested and says whether that took it for a good one.
// Holds what must be true of the answer with require().
bool accepts(std::string_view input);

// Ends the process with a message, for the driver to keep the input.
void require(bool holds, const char* promise);

}  // namespace fuzz

#endif
