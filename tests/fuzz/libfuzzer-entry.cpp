// SPDX-License-Identifier: Apache-2.0
// Drives a fuzz target with libFuzzer.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "fuzz-target.h"

// A program may define the platform's symbols itself, and the targets do.
extern "C" const char* __asan_default_options() {
  return "detect_odr_violation=0";
}

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  // Corpora and the directory for findings stand among the arguments.
  const std::vector<std::string> arguments(*argv + 1, *argv + *argc);
  std::vector<std::string> visible = {FUZZ_BINARY_TREE, FUZZ_SOURCE_TREE};
  for (const std::string& argument : arguments) {
    visible.push_back(argument.substr(argument.find('=') + 1));
  }
  try {
    fuzz::prepare(visible);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "cannot run here: %s\n", error.what());
    std::exit(1);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::accepts({reinterpret_cast<const char*>(data), size});
  return 0;
}
