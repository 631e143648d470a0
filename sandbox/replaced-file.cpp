#include "replaced-file.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace sandbox {
namespace {

[[noreturn]] void fail(const FileDescriptor& directory, const std::string& name) {
  const int error = errno;
  throw std::system_error(error, std::generic_category(), "cannot write " + directory.target() + "/" + name);
}

void writeAll(const FileDescriptor& file, const std::string& content) {
  for (std::size_t done = 0; done < content.size();) {
    const ssize_t count = write(file.get(), content.data() + done, content.size() - done);
    if (count < 0 && errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "cannot write " + file.target());
    }
    done += count < 0 ? 0 : static_cast<std::size_t>(count);
  }
}

}  // namespace

void replaceFile(const FileDescriptor& directory, const std::string& name, const std::string& content) {
  const auto unfinished = name + ".new";
  unlinkat(directory.get(), unfinished.c_str(), 0);  // what an interrupted run left, or a link
  const FileDescriptor file(
      openat(directory.get(), unfinished.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
  if (!file.valid()) {
    fail(directory, unfinished);
  }
  writeAll(file, content);
  if (renameat(directory.get(), unfinished.c_str(), directory.get(), name.c_str()) != 0) {
    fail(directory, name);
  }
}

}  // namespace sandbox
