// SPDX-License-Identifier: Apache-2.0
// Keeps files in the page cache, so that a benchmark measures no disk where it means
// none. Says whether it could lock them there, and does so until its input ends.
// usage: bench-keep-cached FILE...
#include <cstdio>
#include <list>

#include "bench-files.h"

int main(int argc, char** argv) {
  std::list<bench::CachedFile> files;
  bool locked = true;
  for (int i = 1; i < argc; ++i) {
    locked = files.emplace_back(argv[i]).isLocked() && locked;
  }
  std::puts(locked ? "the files are in the page cache and locked there" : "the files are in the page cache");
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
  return 0;
}
