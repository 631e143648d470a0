// SPDX-License-Identifier: Apache-2.0
// The lock that lets one module update run at a time on the device: a named
// POSIX semaphore that all processes share. Its value is 1 when free, 0 while
// an update holds it; it survives every process and is never removed here.
#ifndef FW_UPDATE_COMMON_H
#define FW_UPDATE_COMMON_H

#include <semaphore.h>

#include "fw-update-export.h"

// Name of the semaphore: "/SEM_UPDATE_CONTROL".
FW_UPDATE_EXPORT extern const char* semName;

class FW_UPDATE_EXPORT FWUpdateCommon {
 public:
  // Never null.
  static FWUpdateCommon* getInstance();

  // Opens the semaphore, creating it free (value 1, mode 0600) when absent.
  // Do not close the handle: that this process has the semaphore mapped tells
  // whoever gives back the lock of a dead process that a live one may hold it.
  // Each call of a process gives the same handle. Returns null on failure, with
  // errno set.
  sem_t* create_semaphore();

  // Opens the semaphore once more and closes that handle: it creates an absent
  // semaphore, and closes or removes nothing else.
  void destroy_semaphore();

  FWUpdateCommon(const FWUpdateCommon&) = delete;
  FWUpdateCommon& operator=(const FWUpdateCommon&) = delete;

 private:
  FWUpdateCommon() = default;
};

#endif
