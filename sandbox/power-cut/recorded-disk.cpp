// SPDX-License-Identifier: Apache-2.0
#include "recorded-disk.h"

#define FUSE_USE_VERSION 31
#include <fcntl.h>
#include <fuse.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <system_error>

#include "disk-log.h"
#include "file-descriptor.h"
#include "system-error.h"

namespace powercut {
namespace {

constexpr char kDisk[] = "/disk";
constexpr char kMark[] = "/mark";
constexpr unsigned int kLargestWrite = 1U << 20U;

struct Recording {
  Recording(const std::string& path, const std::string& logPath)
      : image(open(path.c_str(), O_RDWR | O_CLOEXEC)), log(logPath) {
    if (!image) {
      base::throwErrno(path);
    }
  }

  const base::FileDescriptor image;
  DiskLogWriter log;
  void (*started)() = nullptr;
};

Recording& recording() {
  return *static_cast<Recording*>(fuse_get_context()->private_data);
}

bool isMark(const char* path) {
  return std::strcmp(path, kMark) == 0;
}

// What cannot be recorded fails on the disk as well.
template <typename Step>
int recorded(Step step) {
  try {
    step();
    return 0;
  } catch (const std::system_error& error) {
    return -error.code().value();
  }
}

void* start(fuse_conn_info* connection, fuse_config* /*configuration*/) {
  connection->max_write = kLargestWrite;
  recording().started();
  return &recording();
}

int attributes(const char* path, struct stat* status, fuse_file_info* /*file*/) {
  *status = {};
  if (std::strcmp(path, "/") == 0) {
    status->st_mode = S_IFDIR | 0700;
    return 0;
  }
  if (std::strcmp(path, kDisk) != 0 && !isMark(path)) {
    return -ENOENT;
  }
  if (!isMark(path) && fstat(recording().image.get(), status) != 0) {
    return -errno;
  }
  status->st_mode = S_IFREG | 0600;
  status->st_nlink = 1;
  return 0;
}

int openFile(const char* /*path*/, fuse_file_info* file) {
  file->direct_io = 1;
  return 0;
}

int readFile(const char* path, char* buffer, size_t size, off_t offset, fuse_file_info* /*file*/) {
  const ssize_t count = isMark(path) ? 0 : pread(recording().image.get(), buffer, size, offset);
  return count < 0 ? -errno : static_cast<int>(count);
}

int writeFile(const char* path, const char* bytes, size_t size, off_t offset, fuse_file_info* /*file*/) {
  const int result = recorded([&] {
    if (isMark(path)) {
      recording().log.mark(std::string(bytes, size));
      return;
    }
    if (pwrite(recording().image.get(), bytes, size, offset) != static_cast<ssize_t>(size)) {
      base::throwErrno(path);
    }
    recording().log.write(static_cast<std::uint64_t>(offset), bytes, size);
  });
  return result == 0 ? static_cast<int>(size) : result;
}

int syncFile(const char* path, int /*dataOnly*/, fuse_file_info* /*file*/) {
  return isMark(path) ? 0 : recorded([] { recording().log.flush(); });
}

int truncateFile(const char* path, off_t /*size*/, fuse_file_info* /*file*/) {
  return isMark(path) ? 0 : -EPERM;
}

// What is mounted from the disk goes with the namespace that it is in. If that were this
// process's own and it were killed, the kernel would wait for it to serve what is still to
// be written, and it would never end.
void leaveNamespace(const std::string& directory) {
  if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      umount2(directory.c_str(), MNT_DETACH) != 0) {
    base::throwErrno("the recorder cannot leave its namespace");
  }
}

}  // namespace

int recordDisk(const std::string& image, const std::string& log, const std::string& directory,
               void (*started)()) {
  Recording recording(image, log);
  recording.started = started;
  fuse_operations operations = {};
  operations.init = start;
  operations.getattr = attributes;
  operations.open = openFile;
  operations.read = readFile;
  operations.write = writeFile;
  operations.fsync = syncFile;
  operations.truncate = truncateFile;
  char name[] = "recorded-disk";
  char* arguments[] = {name, nullptr};
  fuse_args options = FUSE_ARGS_INIT(1, arguments);
  const std::unique_ptr<fuse, decltype(&fuse_destroy)> system(
      fuse_new(&options, &operations, sizeof operations, &recording), fuse_destroy);
  if (!system || fuse_mount(system.get(), directory.c_str()) != 0) {
    return 1;
  }
  leaveNamespace(directory);
  return fuse_loop(system.get());  // one request after the other, as the record wants them
}

}  // namespace powercut
