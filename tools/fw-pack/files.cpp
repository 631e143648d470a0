// SPDX-License-Identifier: Apache-2.0
#include "files.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include "exit-code.h"
#include "interruption.h"
#include "live-line.h"
#include "whole-file.h"

namespace fwpack {
namespace {

constexpr std::size_t kBlockSize = 65536;
constexpr std::uint64_t kLongReading = std::uint64_t{64} << 20U;  // what takes a while

// How far a long reading is, on a terminal.
class Progress {
 public:
  Progress(const std::string& path, std::uint64_t size) : path_(path), size_(size) {}

  void at(std::uint64_t done) {
    const std::uint64_t percent = size_ < kLongReading ? 0 : done * 100 / size_;
    if (percent != percent_) {
      line_.show("reading " + path_ + ": " + std::to_string(percent) + " %");
    }
    percent_ = percent;
  }

 private:
  const std::string& path_;
  const std::uint64_t size_;
  std::uint64_t percent_ = 0;
  tool::LiveLine line_{STDERR_FILENO};
};

void requireReplaceable(const std::string& path, Existing existing) {
  struct stat status = {};
  if (::lstat(path.c_str(), &status) != 0) {
    return;
  }
  if (!S_ISREG(status.st_mode)) {
    throw Failure(ExitCode::Failed, path + " is there and is no regular file; name another output");
  }
  if (existing == Existing::Keep) {
    throw Failure(ExitCode::Failed, path + " is there already and is not overwritten");
  }
}

// Puts the names in a directory on the disk. Where it may not be read, or the file system
// knows no such thing, they come to the disk when they come.
void syncDirectory(const std::string& path) {
  const base::FileDescriptor directory(
      ::open(path.empty() ? "." : path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory && ::fsync(directory.get()) != 0 && errno != EINVAL) {
    failWithErrno("what is new in " + path + " cannot be put on the disk");
  }
}

}  // namespace

void failWithErrno(const std::string& sentence) {
  throw Failure(ExitCode::Failed, sentence + ": " + std::strerror(errno));
}

InputFile::InputFile(const std::string& path)
    : path_(path), file_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
  struct stat status = {};
  if (!file_ || ::fstat(file_.get(), &status) != 0) {
    failWithErrno(path + " cannot be read");
  }
  if (!S_ISREG(status.st_mode)) {
    throw Failure(ExitCode::Failed, path + " is no regular file");
  }
  size_ = static_cast<std::uint64_t>(status.st_size);
}

void InputFile::read(std::uint64_t offset, std::uint64_t size, const Block& block) const {
  std::vector<unsigned char> buffer(kBlockSize);
  Progress progress(path_, size);
  for (const std::uint64_t whole = size; size > 0; progress.at(whole - size)) {
    endIfInterrupted();
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(size, buffer.size()));
    const ssize_t got = ::pread(file_.get(), buffer.data(), wanted, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0) {
      failWithErrno(path_ + " cannot be read");
    }
    if (got == 0) {
      throw Failure(ExitCode::Failed, path_ + " became shorter while it was read");
    }
    block(buffer.data(), static_cast<std::size_t>(got));
    offset += static_cast<std::uint64_t>(got);
    size -= static_cast<std::uint64_t>(got);
  }
}

std::string InputFile::text(std::uint64_t offset, std::size_t size) const {
  std::string text;
  const std::uint64_t there = size_ > offset ? size_ - offset : 0;
  read(offset, std::min<std::uint64_t>(size, there), [&](const unsigned char* bytes, std::size_t count) {
    text.append(reinterpret_cast<const char*>(bytes), count);
  });
  return text;
}

OutputFile::OutputFile(std::string path, mode_t mode, Existing existing)
    : path_(std::move(path)), unfinished_(path_ + ".XXXXXX"), mode_(mode), existing_(existing) {
  requireReplaceable(path_, existing_);
  file_.reset(::mkostemp(unfinished_.data(), O_CLOEXEC));
  if (!file_) {
    failWithErrno(path_ + " cannot be written");
  }
}

OutputFile::~OutputFile() {
  if (file_) {
    ::unlink(unfinished_.c_str());
  }
}

void OutputFile::write(const unsigned char* bytes, std::size_t size) {
  if (const int error = base::writeAll(file_.get(), {reinterpret_cast<const char*>(bytes), size});
      error != 0) {
    errno = error;
    failWithErrno(path_ + " cannot be written");
  }
}

void OutputFile::write(const std::string& text) {
  write(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

void OutputFile::append(const unsigned char* bytes, std::size_t size) {
  if (::lseek(file_.get(), 0, SEEK_END) < 0) {
    failWithErrno(path_ + " cannot be written");
  }
  write(bytes, size);
}

void OutputFile::commit() {
  endIfInterrupted();
  requireReplaceable(path_, existing_);
  const unsigned int flags = existing_ == Existing::Keep ? RENAME_NOREPLACE : 0;
  if (::fchmod(file_.get(), mode_) != 0 || ::fsync(file_.get()) != 0 ||
      ::renameat2(AT_FDCWD, unfinished_.c_str(), AT_FDCWD, path_.c_str(), flags) != 0) {
    failWithErrno(path_ + " cannot be written");
  }
  file_.reset();
  syncDirectory(std::filesystem::path(path_).parent_path());
}

void makeDirectories(const std::filesystem::path& path) {
  if (path.empty() || std::filesystem::is_directory(path)) {
    return;
  }
  makeDirectories(path.parent_path());
  if (std::filesystem::create_directory(path)) {
    syncDirectory(path.parent_path());
  }
}

bool isSquashfs(const InputFile& file) {
  constexpr char kMagic[] = "hsqs";
  return file.text(0, sizeof kMagic - 1) == kMagic;
}

std::uint32_t imageCrc(const InputFile& image) {
  image::Crc crc;
  image.readAll([&](const unsigned char* bytes, std::size_t size) { crc.add(bytes, size); });
  return crc.value();
}

image::Information describe(const InputFile& image, const std::string& version, std::uint32_t expectedTime,
                            const std::string& updateClass) {
  if (image.size() == 0) {
    throw Failure(ExitCode::Failed, image.path() + " is empty; modules refuse an empty image");
  }
  return {version, imageCrc(image), expectedTime, updateClass};
}

void copyFile(const InputFile& from, const std::string& to) {
  OutputFile output(to, kPublicMode);
  from.readAll([&](const unsigned char* bytes, std::size_t size) { output.write(bytes, size); });
  output.commit();
}

}  // namespace fwpack
