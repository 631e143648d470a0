// SPDX-License-Identifier: Apache-2.0
#include "lying-file-system.h"

#define FUSE_USE_VERSION 31
#include <fcntl.h>
#include <fuse.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <stdexcept>

struct LyingFileSystem::Control {
  std::atomic<std::int64_t> offset{-1};
  std::atomic<int> fromReading{0};
  std::atomic<bool> fails{false};
  std::atomic<int> readings{0};
};

namespace {

constexpr const char* kFile = "/abc.bin";

const std::string* content = nullptr;
void* shared = nullptr;
int mountedPipe = -1;

}  // namespace

// The process's file system; FUSE calls these.
struct LyingOperations {
  template <typename Control>
  static fuse_operations make() {
    fuse_operations operations{};
    operations.init = [](fuse_conn_info*, fuse_config*) -> void* {
      return ::write(mountedPipe, "m", 1) == 1 ? nullptr : shared;
    };
    operations.getattr = [](const char* path, struct stat* status, fuse_file_info*) {
      *status = {};
      if (std::strcmp(path, "/") == 0) {
        status->st_mode = S_IFDIR | 0755;
        return 0;
      }
      if (std::strcmp(path, kFile) != 0) {
        return -ENOENT;
      }
      status->st_mode = S_IFREG | 0644;
      status->st_nlink = 1;
      status->st_size = static_cast<off_t>(content->size());
      return 0;
    };
    operations.open = [](const char*, fuse_file_info* file) {
      file->direct_io = 1;
      return 0;
    };
    operations.read = [](const char*, char* buffer, size_t size, off_t offset, fuse_file_info*) {
      return read(*static_cast<Control*>(shared), buffer, size, offset);
    };
    return operations;
  }

  template <typename Control>
  static int read(Control& control, char* buffer, std::size_t size, std::int64_t offset) {
    const auto end = static_cast<std::int64_t>(content->size());
    if (offset >= end) {
      return 0;
    }
    const auto length = std::min(static_cast<std::int64_t>(size), end - offset);
    std::memcpy(buffer, content->data() + offset, static_cast<std::size_t>(length));
    const std::int64_t at = control.offset;
    if (at >= offset && at < offset + length && ++control.readings >= control.fromReading) {
      if (control.fails) {
        return -EIO;
      }
      buffer[at - offset] = static_cast<char>(buffer[at - offset] ^ 1);
    }
    return static_cast<int>(length);
  }

  template <typename Control>
  static int serve(const std::string& directory) {
    const fuse_operations operations = make<Control>();
    char name[] = "lying";
    char* arguments[] = {name, nullptr};
    fuse_args options = FUSE_ARGS_INIT(1, arguments);
    fuse* const system = fuse_new(&options, &operations, sizeof operations, nullptr);
    if (system == nullptr || fuse_mount(system, directory.c_str()) != 0) {
      return 1;
    }
    fuse_loop(system);
    return 0;
  }
};

std::string LyingFileSystem::whyNot() {
  if (access("/dev/fuse", R_OK | W_OK) != 0) {
    return std::string("/dev/fuse: ") + std::strerror(errno);
  }
  if (geteuid() != 0) {
    return "only root mounts a file system of its own";
  }
  return "";
}

LyingFileSystem::LyingFileSystem(const std::string& directory, const std::string& bytes)
    : directory_(directory) {
  void* const memory =
      mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    throw std::runtime_error("no shared memory");
  }
  control_ = new (memory) Control;
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw std::runtime_error("no pipe");
  }
  process_ = std::make_unique<ChildProcess>([&] {
    mountedPipe = ends[1];
    content = &bytes;
    shared = control_;
    return LyingOperations::serve<Control>(directory);
  });
  close(ends[1]);
  char mounted = 0;  // or the process has ended
  const bool serves = ::read(ends[0], &mounted, 1) == 1;
  close(ends[0]);
  if (!serves) {
    throw std::runtime_error("the file system cannot be mounted");
  }
}

LyingFileSystem::~LyingFileSystem() {
  umount2(directory_.c_str(), MNT_DETACH);
  process_.reset();
  munmap(control_, sizeof(Control));
}

void LyingFileSystem::lieAbout(std::int64_t offset, int fromReading) {
  control_->fails = false;
  control_->fromReading = fromReading;
  control_->readings = 0;
  control_->offset = offset;
}

void LyingFileSystem::failAt(std::int64_t offset, int fromReading) {
  lieAbout(offset, fromReading);
  control_->fails = true;
}

void LyingFileSystem::tellTheTruth() {
  control_->offset = -1;
}

int LyingFileSystem::readings() const {
  return control_->readings;
}
