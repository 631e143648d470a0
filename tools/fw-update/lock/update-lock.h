// SPDX-License-Identifier: Apache-2.0
// The device's update lock, opened from outside the library: the file that the C
// library keeps the named semaphore in. Opening it creates nothing. Owns a mapping of
// its own; for one thread.
#ifndef FW_UPDATE_TOOL_UPDATE_LOCK_H
#define FW_UPDATE_TOOL_UPDATE_LOCK_H

#include <semaphore.h>

#include <csignal>
#include <string>

#include "file-descriptor.h"

namespace tool {

class UpdateLock {
 public:
  UpdateLock();
  ~UpdateLock();
  UpdateLock(const UpdateLock&) = delete;
  UpdateLock& operator=(const UpdateLock&) = delete;

  // 0 when it is open, else why not, as errno: ENOENT when there is no lock.
  int error() const { return openError_; }

  // What follows is only for an open lock.
  int value() const;
  int descriptor() const { return opened_.get(); }
  const void* mapping() const { return semaphore_; }
  void giveBack();

  static std::string path();

 private:
  base::FileDescriptor opened_;
  sem_t* semaphore_ = nullptr;
  int openError_ = 0;
};

// The kernel's word that nobody else has the lock's file open or mapped: it gives a
// write lease only then, whichever user and namespace others are in. While this
// lives, a process that opens the lock waits in the opening.
class SoleUse {
 public:
  explicit SoleUse(const UpdateLock& lock);
  ~SoleUse();
  SoleUse(const SoleUse&) = delete;
  SoleUse& operator=(const SoleUse&) = delete;

  bool granted() const { return answer_ == Answer::Yes; }
  bool refused() const { return answer_ == Answer::No; }

 private:
  enum class Answer { Yes, No, Unknown };  // unknown: the kernel cannot tell here
  Answer ask() const;

  const int file_;
  struct sigaction before_ = {};
  Answer answer_ = Answer::Unknown;
};

// From its construction on, whether somebody opened the lock's file.
class OpenWatch {
 public:
  explicit OpenWatch(const UpdateLock& lock);

  bool works() const { return static_cast<bool>(events_); }
  bool nobodyOpened() const;

 private:
  base::FileDescriptor events_;
};

}  // namespace tool

#endif
