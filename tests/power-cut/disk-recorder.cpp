// SPDX-License-Identifier: Apache-2.0
// Records what is written to a disk: shows IMAGE as DIRECTORY/disk for a loop device, and
// writes LOG until DIRECTORY is unmounted.
//
// usage: disk-recorder IMAGE LOG DIRECTORY
//
// A line "ready" is printed when it can be used.
#include <cstdio>
#include <exception>

#include "recorded-disk.h"

int main(int argc, char** argv) try {
  if (argc != 4) {
    std::fprintf(stderr, "usage: disk-recorder IMAGE LOG DIRECTORY\n");
    return 2;
  }
  return powercut::recordDisk(argv[1], argv[2], argv[3], [] {
    std::puts("ready");
    std::fflush(stdout);
  });
} catch (const std::exception& error) {
  std::fprintf(stderr, "disk-recorder: %s\n", error.what());
  return 1;
}
