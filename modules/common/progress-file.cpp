// SPDX-License-Identifier: Apache-2.0
#include "progress-file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <system_error>

namespace fwcomponent {
namespace {

constexpr unsigned int kCompleted = 100;
constexpr std::size_t kTextLength = 4;  // "%3u\n"

std::string progressPath(const std::string& firmwareName) {
  return kComponentsDirectory + firmwareName + ".progress";
}

struct flock wholeFile(int type) {
  struct flock lock {};
  lock.l_type = static_cast<short>(type);
  lock.l_whence = SEEK_SET;
  return lock;
}

// The lock belongs to the open file, not to the process, so it also holds against
// other threads; and it can be asked for without being taken, so a reader never
// stands in a writer's way.
void lockForUpdate(int descriptor) {
  struct flock lock = wholeFile(F_WRLCK);
  if (::fcntl(descriptor, F_OFD_SETLK, &lock) == 0) {
    return;
  }
  if (errno == EAGAIN || errno == EACCES) {
    fail(EBUSY, "another update of the component runs");
  }
  fail(errno, "lock of the progress file");
}

bool updateRuns(int descriptor) {
  struct flock lock = wholeFile(F_RDLCK);
  if (::fcntl(descriptor, F_OFD_GETLK, &lock) != 0) {
    fail(errno, "lock of the progress file");
  }
  return lock.l_type != F_UNLCK;
}

unsigned int parsePercent(const char* text, std::size_t length) {
  const char* const end = text + length;
  while (text != end && *text == ' ') {
    ++text;
  }
  unsigned int percent = 0;
  std::from_chars(text, end, percent);
  return percent <= kCompleted ? percent : 0;
}

void writePercent(int descriptor, unsigned int percent) {
  char text[kTextLength + 1];
  std::snprintf(text, sizeof text, "%3u\n", percent % 1000);
  ssize_t written = 0;
  do {
    written = ::pwrite(descriptor, text, kTextLength, 0);
  } while (written < 0 && errno == EINTR);
  if (written != static_cast<ssize_t>(kTextLength)) {
    fail(written < 0 ? errno : ENOSPC, "progress file");
  }
}

}  // namespace

ProgressWriter::ProgressWriter(const std::string& firmwareName)
    : file_(openFile(progressPath(firmwareName), O_RDWR | O_CREAT | O_NOFOLLOW, 0644)) {
  lockForUpdate(file_.get());
  writePercent(file_.get(), percent_);
}

void ProgressWriter::report(unsigned int percent) {
  if (percent == percent_) {
    return;
  }
  writePercent(file_.get(), percent);
  percent_ = percent;
}

unsigned int readProgress(const std::string& firmwareName) try {
  const FileDescriptor file = openFile(progressPath(firmwareName), O_RDONLY);
  // Asked before the text is read: an update that ends in between then still
  // counts as running at its last percentage, never as running at a stale one.
  const bool running = updateRuns(file.get());
  char text[kTextLength] = {};
  const unsigned int percent = parsePercent(text, readBlock(file.get(), text, sizeof text));
  return running || percent == kCompleted ? percent : 0;
} catch (const std::system_error& error) {
  if (error.code() == std::errc::no_such_file_or_directory) {
    return 0;
  }
  throw;
}

}  // namespace fwcomponent
