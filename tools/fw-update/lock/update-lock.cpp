// SPDX-License-Identifier: Apache-2.0
#include "lock/update-lock.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "fw-update-common.h"

namespace tool {
namespace {

// Where the C library keeps named semaphores.
constexpr const char* kSemaphores = "/dev/shm/sem.";

// One more use of the file, as every updater's is: mapped, and closed again.
class Mapping {
 public:
  explicit Mapping(int descriptor) {
    const base::FileDescriptor again(open(base::descriptorPath(descriptor).c_str(), O_RDWR | O_CLOEXEC));
    if (again) {
      address_ = mmap(nullptr, sizeof(sem_t), PROT_READ, MAP_SHARED, again.get(), 0);
    }
  }
  ~Mapping() {
    if (exists()) {
      munmap(address_, sizeof(sem_t));
    }
  }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;

  bool exists() const { return address_ != MAP_FAILED; }

 private:
  void* address_ = MAP_FAILED;
};

// 0, or why not as errno.
int takeLease(int descriptor) {
  return fcntl(descriptor, F_SETLEASE, F_WRLCK) == 0 ? 0 : errno;
}

}  // namespace

std::string UpdateLock::path() {
  return kSemaphores + std::string(semName).substr(1);
}

// Not sem_open, which opens the file a second time: the kernel would count that as
// somebody else's use.
UpdateLock::UpdateLock() : opened_(open(path().c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC)) {
  struct stat status {};
  if (!opened_ || fstat(opened_.get(), &status) != 0) {
    openError_ = errno;
    return;
  }
  if (!S_ISREG(status.st_mode) || status.st_size < static_cast<off_t>(sizeof(sem_t))) {
    openError_ = EINVAL;
    return;
  }
  void* const mapped = mmap(nullptr, sizeof(sem_t), PROT_READ | PROT_WRITE, MAP_SHARED, opened_.get(), 0);
  if (mapped == MAP_FAILED) {
    openError_ = errno;
    return;
  }
  semaphore_ = static_cast<sem_t*>(mapped);
}

UpdateLock::~UpdateLock() {
  if (semaphore_ != nullptr) {
    munmap(semaphore_, sizeof(sem_t));
  }
}

int UpdateLock::value() const {
  int value = 0;
  sem_getvalue(semaphore_, &value);
  return value;
}

void UpdateLock::giveBack() {
  sem_post(semaphore_);
}

// Somebody who opens the file sends SIGIO, which would end the process.
SoleUse::SoleUse(const UpdateLock& lock) : file_(lock.descriptor()) {
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGIO, &ignore, &before_);
  answer_ = ask();
}

SoleUse::~SoleUse() {
  fcntl(file_, F_SETLEASE, F_UNLCK);
  sigaction(SIGIO, &before_, nullptr);
}

// Some file systems, such as overlays, give a lease although the file is mapped.
// Whether this one does is tried first.
SoleUse::Answer SoleUse::ask() const {
  {
    const Mapping other(file_);
    if (!other.exists() || takeLease(file_) != EAGAIN) {
      return Answer::Unknown;
    }
  }
  const int error = takeLease(file_);
  if (error == 0) {
    return Answer::Yes;
  }
  return error == EAGAIN ? Answer::No : Answer::Unknown;
}

// By the descriptor: at the path there might be another file by now.
OpenWatch::OpenWatch(const UpdateLock& lock) : events_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (events_ &&
      inotify_add_watch(events_.get(), base::descriptorPath(lock.descriptor()).c_str(), IN_OPEN) < 0) {
    events_.reset();
  }
}

bool OpenWatch::nobodyOpened() const {
  char event[sizeof(inotify_event)];
  return works() && read(events_.get(), event, sizeof event) < 0 && errno == EAGAIN;
}

}  // namespace tool
