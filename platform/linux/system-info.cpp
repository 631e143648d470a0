#include "system-info.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <exception>
#include <string>

#include "os-release.h"
#include "unique-fd.h"

namespace {

constexpr const char* kOsReleaseFiles[] = {"/etc/os-release", "/usr/lib/os-release"};

// 0 with the file's content in text, else a negative errno value.
int ReadTextFile(const char* path, std::string& text) {
  constexpr std::size_t kHighestSize = std::size_t{64} * 1024;
  const fwplatform::UniqueFd file(open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!file) {
    return -errno;
  }
  text.clear();
  char block[4096];
  for (;;) {
    const ssize_t count = read(file.get(), block, sizeof block);
    if (count == 0) {
      return 0;
    }
    if (count > 0) {
      text.append(block, static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      return -errno;
    }
    if (text.size() > kHighestSize) {
      return -EFBIG;
    }
  }
}

int ReadOsRelease(std::string& text) {
  int status = -ENOENT;
  for (const char* path : kOsReleaseFiles) {
    status = ReadTextFile(path, text);
    if (status == 0) {
      return 0;
    }
  }
  return status;
}

int GetSoftwareVersion(char** value) {
  std::string text;
  const int status = ReadOsRelease(text);
  if (status != 0) {
    return status;
  }
  char* copy = strdup(fwplatform::SoftwareVersionText(fwplatform::ParseOsRelease(text)).c_str());
  if (copy == nullptr) {
    return -ENOMEM;
  }
  *value = copy;
  return 0;
}

}  // namespace

int system_info_get_value_string(int key, char** value) {
  if (value == nullptr) {
    return -EINVAL;
  }
  if (key != SYSTEM_INFO_SOFTWARE_VERSION) {
    return -ENOTSUP;
  }
  try {
    return GetSoftwareVersion(value);
  } catch (const std::exception&) {
    return -ENOMEM;
  }
}
