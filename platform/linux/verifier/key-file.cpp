#include "key-file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include "unique-fd.h"

namespace fwpackage {
namespace {

constexpr std::size_t kLargest = 65536;

int readToEnd(int file, std::string& content) {
  content.clear();
  char block[4096];
  for (;;) {
    const ssize_t count = ::read(file, block, sizeof block);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      return count < 0 ? errno : 0;
    }
    content.append(block, static_cast<std::size_t>(count));
    if (content.size() > kLargest) {
      return EFBIG;
    }
  }
}

}  // namespace

int readKeyFile(const std::string& path, std::string& content) {
  const fwplatform::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status = {};
  if (!file || ::fstat(file.get(), &status) != 0) {
    return errno;
  }
  return S_ISREG(status.st_mode) ? readToEnd(file.get(), content) : EINVAL;
}

}  // namespace fwpackage
