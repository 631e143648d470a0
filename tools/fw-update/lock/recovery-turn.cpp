// SPDX-License-Identifier: Apache-2.0
#include "lock/recovery-turn.h"

#include <fcntl.h>
#include <sys/file.h>

#include <thread>

#include "lock/run-directory.h"

namespace tool {
namespace {

constexpr const char* kLockFile = "recovery.lock";
constexpr const char* kSemaphores = "/dev/shm";
constexpr std::chrono::milliseconds kPause{20};

// What everybody can open everybody can lock, and so keep recoveries away for ever. It
// serves only those who may not use the file that root has.
base::FileDescriptor openTurn() {
  if (const base::FileDescriptor directory = makeRunDirectory()) {
    if (base::FileDescriptor file = openOwnLockFile(directory, kLockFile)) {
      return file;
    }
  }
  return base::FileDescriptor(open(kSemaphores, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

}  // namespace

RecoveryTurn::RecoveryTurn(std::chrono::milliseconds patience) : file_(openTurn()) {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (file_ && !taken_ && std::chrono::steady_clock::now() < end) {
    taken_ = flock(file_.get(), LOCK_EX | LOCK_NB) == 0;
    if (!taken_) {
      std::this_thread::sleep_for(kPause);
    }
  }
}

int RecoveryTurn::keepForNextProgram() const {
  fcntl(file_.get(), F_SETFD, 0);
  return file_.get();
}

}  // namespace tool
