// SPDX-License-Identifier: Apache-2.0
// Runs a fuzz target over a corpus, without a fuzzer. What lies in the corpus's
// folder "good" must be accepted, what lies in "bad" refused; the rest, found by
// fuzzing, may be either. Exit code 77, "skipped": the target cannot run here.
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "fuzz-target.h"

namespace {

namespace fs = std::filesystem;

constexpr int kSkipped = 77;

struct Counts {
  int files = 0;
  int wrong = 0;
};

bool accepts(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  const std::string bytes(std::istreambuf_iterator<char>(stream), {});
  // Of exactly this size, so that a memory checker sees one byte too many.
  const std::vector<char> exact(bytes.begin(), bytes.end());
  return fuzz::accepts({exact.data(), exact.size()});
}

void replay(const fs::path& file, Counts& counts) {
  std::printf("%s\n", file.c_str());
  std::fflush(stdout);  // the last line names the file if the target ends the process
  const bool accepted = accepts(file);
  const std::string folder = file.parent_path().filename();
  if ((folder == "good" && !accepted) || (folder == "bad" && accepted)) {
    std::printf("  was %s\n", accepted ? "accepted" : "refused");
    ++counts.wrong;
  }
  ++counts.files;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    fuzz::prepare({FUZZ_BINARY_TREE, FUZZ_SOURCE_TREE});
  } catch (const std::exception& error) {
    std::printf("cannot run here: %s\n", error.what());
    return kSkipped;
  }
  Counts counts;
  for (int i = 1; i < argc; ++i) {
    for (const auto& entry : fs::recursive_directory_iterator(argv[i])) {
      if (entry.is_regular_file()) {
        replay(entry.path(), counts);
      }
    }
  }
  std::printf("%d files, %d of them not answered as expected\n", counts.files, counts.wrong);
  return counts.files > 0 && counts.wrong == 0 ? 0 : 1;
}
