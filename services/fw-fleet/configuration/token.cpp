// SPDX-License-Identifier: Apache-2.0
#include "token.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "file-descriptor.h"
#include "printable-text.h"
#include "system-error.h"
#include "whole-file.h"

namespace fleet {
namespace {

constexpr std::size_t kLongestToken = 1024;

bool isToken(const std::string& text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](char byte) { return byte > ' ' && byte <= '~'; });
}

struct Secret {
  base::FileDescriptor opened;
  std::string problem;
};

// file: what it is called in sentences.
Secret openSecret(const std::string& path, const std::string& file) {
  base::FileDescriptor opened(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status = {};
  if (!opened || fstat(opened.get(), &status) != 0) {
    return {{}, file + " cannot be read: " + base::errnoText(errno) + "."};
  }
  if (!S_ISREG(status.st_mode)) {
    return {{}, file + " is no regular file."};
  }
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    return {{}, file + " may be used by others: give it the mode 0400."};
  }
  return {std::move(opened), ""};
}

}  // namespace

TokenRead readToken(const std::string& path) {
  const std::string file = "The token file " + base::printableText(path);
  const auto [opened, problem] = openSecret(path, file);
  if (!problem.empty()) {
    return {"", problem};
  }
  std::string token;
  if (const int error = base::readToEnd(opened.get(), kLongestToken, token); error != 0 && error != EFBIG) {
    return {"", file + " cannot be read: " + base::errnoText(error) + "."};
  }
  if (!token.empty() && token.back() == '\n') {
    token.pop_back();
  }
  if (token.size() > kLongestToken || !isToken(token)) {
    return {"", file + " must have one line of 1 to 1024 letters, digits and signs."};
  }
  return {token, ""};
}

std::string problemOfKey(const std::string& path) {
  return openSecret(path, "The key file " + base::printableText(path)).problem;
}

}  // namespace fleet
