// SPDX-License-Identifier: Apache-2.0
#include "cut-disk.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>
#include <stdexcept>

#include "system-error.h"

namespace powercut {
namespace {

using base::FileDescriptor;

constexpr std::uint32_t kSectorSize = 512;

FileDescriptor opened(const std::string& path, int flags) {
  FileDescriptor file(open(path.c_str(), flags | O_CLOEXEC, 0600));
  if (!file) {
    base::throwErrno(path);
  }
  return file;
}

FileDescriptor newFile(const std::string& path, std::size_t size) {
  FileDescriptor file = opened(path, O_RDWR | O_CREAT | O_TRUNC);
  if (ftruncate(file.get(), static_cast<off_t>(size)) != 0) {
    base::throwErrno(path);
  }
  return file;
}

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  const std::streamoff size = file.tellg();
  std::string content(size > 0 ? static_cast<std::size_t>(size) : 0, '\0');
  file.seekg(0);
  if (content.empty() || !file.read(content.data(), static_cast<std::streamsize>(size))) {
    throw std::runtime_error(path + " cannot be read");
  }
  return content;
}

void put(std::string& disk, const Piece& piece) {
  if (piece.offset + piece.data.size() > disk.size()) {
    throw std::runtime_error("the record writes behind the disk's end");
  }
  std::memcpy(&disk[static_cast<std::size_t>(piece.offset)], piece.data.data(), piece.data.size());
}

}  // namespace

LoopDisk::LoopDisk(const std::string& file) {
  const FileDescriptor control = opened("/dev/loop-control", O_RDWR);
  const FileDescriptor backing = opened(file, O_RDWR);
  loop_config config = {};
  config.fd = static_cast<std::uint32_t>(backing.get());
  config.block_size = kSectorSize;
  config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
  for (;;) {
    const int number = ioctl(control.get(), LOOP_CTL_GET_FREE);
    if (number < 0) {
      base::throwErrno("a loop device");
    }
    path_ = "/dev/loop" + std::to_string(number);
    device_ = opened(path_, O_RDWR);
    if (ioctl(device_.get(), LOOP_CONFIGURE, &config) == 0) {
      return;
    }
    if (errno != EBUSY) {  // somebody else took it
      base::throwErrno(path_);
    }
  }
}

// BLKFLSBUF would leave what is still being read, and the next state would show it.
void LoopDisk::clear(std::uint64_t size) const {
  const std::uint64_t range[] = {0, size / kSectorSize * kSectorSize};
  if (ioctl(device_.get(), BLKZEROOUT, range) != 0) {
    base::throwErrno(path_);
  }
}

CutDisk::CutDisk(const std::string& base, const std::vector<Epoch>& epochs, const std::string& scratch)
    : epochs_(epochs), now_(contentOf(base)), file_(newFile(scratch, now_.size())), loop_(scratch) {
  std::set<std::size_t> pages;
  for (std::size_t page = 0; page * kPieceSize < now_.size(); ++page) {
    if (!isZero(page)) {
      pages.insert(page);
    }
  }
  for (const Epoch& epoch : epochs_) {
    for (const auto* pieces : {&epoch.settled, &epoch.pieces}) {
      for (const Piece& piece : *pieces) {
        const auto offset = static_cast<std::size_t>(piece.offset);
        pages.insert(offset / kPieceSize);
        pages.insert((offset + piece.data.size() - 1) / kPieceSize);
      }
    }
  }
  pages_.assign(pages.begin(), pages.end());
}

void CutDisk::beginEpoch(std::size_t index) {
  for (; begun_ <= index; ++begun_) {
    for (const Piece& piece : epochs_[begun_].settled) {
      put(now_, piece);
    }
  }
}

bool CutDisk::isZero(std::size_t page) const {
  static constexpr char kZeros[kPieceSize] = {};
  const std::size_t begin = page * kPieceSize;
  return std::memcmp(&now_[begin], kZeros, std::min(kPieceSize, now_.size() - begin)) == 0;
}

void CutDisk::writeRange(std::size_t begin, std::size_t end) {
  const std::size_t length = std::min(end, now_.size()) - begin;
  if (pwrite(file_.get(), &now_[begin], length, static_cast<off_t>(begin)) != static_cast<ssize_t>(length)) {
    base::throwErrno("the disk's file");
  }
}

// What the kernel wrote into the state before may lie anywhere: the disk begins anew.
void CutDisk::makeState(const Selection& selection) {
  loop_.clear(now_.size());
  for (std::size_t first = 0; first < pages_.size();) {
    std::size_t last = first + 1;
    while (last < pages_.size() && pages_[last] == pages_[last - 1] + 1) {
      ++last;
    }
    writeRange(pages_[first] * kPieceSize, (pages_[last - 1] + 1) * kPieceSize);
    first = last;
  }
  const Epoch& epoch = epochs_[begun_ - 1];
  for (std::size_t index = 0; index < selection.size(); ++index) {
    const Piece& piece = epoch.pieces[index];
    if (selection[index] &&
        pwrite(file_.get(), piece.data.data(), piece.data.size(), static_cast<off_t>(piece.offset)) < 0) {
      base::throwErrno("the disk's file");
    }
  }
}

int CutDisk::mountAt(const FileSystem& system, const std::string& directory) const {
  const bool mounted = mount(loop_.path().c_str(), directory.c_str(), system.kind.c_str(), MS_NOATIME,
                             system.options.c_str()) == 0;
  return mounted ? 0 : errno;
}

void CutDisk::unmount(const std::string& directory) {
  if (umount2(directory.c_str(), 0) != 0) {
    base::throwErrno("cannot unmount " + directory);
  }
}

}  // namespace powercut
