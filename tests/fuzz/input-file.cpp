// SPDX-License-Identifier: Apache-2.0
#include "input-file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

namespace fuzz {
namespace {

[[noreturn]] void fail(const std::string& path) {
  throw std::system_error(errno, std::generic_category(), "cannot write " + path);
}

}  // namespace

InputFile::InputFile()
    : descriptor_(memfd_create("input", MFD_CLOEXEC)), path_("/proc/self/fd/" + std::to_string(descriptor_)) {
  if (descriptor_ < 0) {
    fail("a file in memory");
  }
}

InputFile::InputFile(std::string path) : path_(std::move(path)) {
  std::filesystem::create_directories(std::filesystem::path(path_).parent_path());
  descriptor_ = open(path_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (descriptor_ < 0) {
    fail(path_);
  }
}

InputFile::~InputFile() {
  close(descriptor_);
}

void InputFile::fill(std::string_view content) {
  const bool empty = ftruncate(descriptor_, 0) == 0;
  if (!empty ||
      pwrite(descriptor_, content.data(), content.size(), 0) != static_cast<ssize_t>(content.size())) {
    fail(path_);
  }
}

}  // namespace fuzz
