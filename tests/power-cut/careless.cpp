// SPDX-License-Identifier: Apache-2.0
// Takes care away from a program that is loaded with it (LD_PRELOAD), so that the power
// cut has something to find. CARELESS says which:
//   file        no file is put on the disk
//   directory   no directory is put on the disk
//   order       a file is put on the disk only after the directory
//   success     nothing is put on the disk before the success is in the record, which is
//               when standard input ends
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

bool lacks(const char* care) {
  const char* const value = std::getenv("CARELESS");
  return value != nullptr && std::string(value) == care;
}

bool isDirectory(int descriptor) {
  struct stat status = {};
  return fstat(descriptor, &status) == 0 && S_ISDIR(status.st_mode);
}

int reallySync(int descriptor) {
  static const auto sync = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fsync"));
  return sync(descriptor);
}

std::vector<int>& postponed() {
  static std::vector<int> descriptors;
  return descriptors;
}

int postpone(int descriptor) {
  postponed().push_back(fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
  return 0;
}

void catchUp() {
  for (const int descriptor : postponed()) {
    reallySync(descriptor);
    close(descriptor);
  }
  postponed().clear();
}

// What is put on the disk for it takes along what others wrote before, on many file systems:
// a lack of care would not be seen.
bool isOfTheHistory(int descriptor) {
  char path[4096] = "";
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
  const ssize_t length = readlink(link.c_str(), path, sizeof path - 1);
  return length > 0 && std::string(path).find("/fw-update/history") != std::string::npos;
}

int carelessSync(int descriptor) {
  if (std::getenv("CARELESS") != nullptr && isOfTheHistory(descriptor)) {
    return 0;
  }
  const bool directory = isDirectory(descriptor);
  if (lacks(directory ? "directory" : "file")) {
    return 0;
  }
  if (lacks("success") || (lacks("order") && !directory)) {
    return postpone(descriptor);
  }
  const int result = reallySync(descriptor);
  catchUp();
  return result;
}

struct End {
  ~End() {
    if (lacks("success")) {
      std::fflush(nullptr);
      for (char byte = 0; read(STDIN_FILENO, &byte, 1) > 0;) {
      }
      catchUp();
    }
  }
};

const End end;

// What begins to write, or waits for it, would put the file on the disk as well.
bool keepsFilesFromTheDisk() {
  return lacks("file") || lacks("order") || lacks("success");
}

}  // namespace

extern "C" {

int fsync(int descriptor) {
  return carelessSync(descriptor);
}

int fdatasync(int descriptor) {
  return carelessSync(descriptor);
}

int sync_file_range(int descriptor, off64_t offset, off64_t count, unsigned int flags) {
  static const auto real =
      reinterpret_cast<int (*)(int, off64_t, off64_t, unsigned int)>(dlsym(RTLD_NEXT, "sync_file_range"));
  return keepsFilesFromTheDisk() ? 0 : real(descriptor, offset, count, flags);
}

// With 64-bit file offsets its name for the linker is another one.
int posix_fadvise(int descriptor, off_t offset, off_t length, int advice) {
  static const auto real =
      reinterpret_cast<int (*)(int, off_t, off_t, int)>(dlsym(RTLD_NEXT, "posix_fadvise64"));
  return keepsFilesFromTheDisk() ? 0 : real(descriptor, offset, length, advice);
}
}
