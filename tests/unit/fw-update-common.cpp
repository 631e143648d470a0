// SPDX-License-Identifier: Apache-2.0
// The update lock.
#include "fw-update-common.h"

#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>

#include "child-process.h"
#include "library-test.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class UpdateLock : public LibraryTest {
 protected:
  static FWUpdateCommon& lock() { return *FWUpdateCommon::getInstance(); }

  static int valueOf(sem_t* semaphore) {
    int value = -1;
    sem_getvalue(semaphore, &value);
    return value;
  }
};

constexpr const char* kFile = "/dev/shm/sem.SEM_UPDATE_CONTROL";
constexpr const char* kOpenFailed = "Parent\t: [sem_open] Failed\n";

}  // namespace

TEST_F(UpdateLock, IsNamedForTheWholeDevice) {
  EXPECT_STREQ(semName, "/SEM_UPDATE_CONTROL");
}

TEST_F(UpdateLock, IsCreatedFreeForItsOwnerOnly) {
  sem_t* const semaphore = lock().create_semaphore();

  ASSERT_NE(semaphore, nullptr);
  EXPECT_EQ(valueOf(semaphore), 1);
  struct stat status;
  ASSERT_EQ(stat(kFile, &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  EXPECT_THAT(recording::messages(), IsEmpty());
  sem_close(semaphore);
}

TEST_F(UpdateLock, KeepsItsValueWhenItIsOpenedAgain) {
  sem_t* const first = lock().create_semaphore();
  sem_wait(first);

  sem_t* const second = lock().create_semaphore();

  EXPECT_EQ(second, first) << "one mapping in one process";
  EXPECT_EQ(valueOf(second), 0);
  EXPECT_EQ(sem_close(first), 0);
  EXPECT_EQ(sem_close(second), 0) << "each call is an open of its own";
}

TEST_F(UpdateLock, IsTheSameInASecondProcess) {
  sem_t* const mine = lock().create_semaphore();
  sem_wait(mine);

  const int valueThere =
      runInChild([] { return valueOf(FWUpdateCommon::getInstance()->create_semaphore()); });
  runInChild([] { return sem_post(FWUpdateCommon::getInstance()->create_semaphore()); });

  EXPECT_EQ(valueThere, 0);
  EXPECT_EQ(valueOf(mine), 1);
  sem_close(mine);
}

TEST_F(UpdateLock, ExistsAfterItWasDestroyed) {
  lock().destroy_semaphore();

  EXPECT_TRUE(exists(kFile));
  EXPECT_FALSE(hasSemaphoreOpen()) << "its own handle is closed";
}

TEST_F(UpdateLock, StaysOpenForItsCaller) {
  sem_t* const semaphore = lock().create_semaphore();

  EXPECT_TRUE(hasSemaphoreOpen());

  sem_close(semaphore);
}

TEST_F(UpdateLock, IsOpenedUnderTheNameOfTheMoment) {
  const char* const name = semName;

  semName = "/SEM_FIRST";
  sem_t* const semaphore = lock().create_semaphore();
  semName = "/SEM_SECOND";
  lock().destroy_semaphore();
  semName = name;

  EXPECT_TRUE(exists("/dev/shm/sem.SEM_FIRST"));
  EXPECT_TRUE(exists("/dev/shm/sem.SEM_SECOND"));
  EXPECT_FALSE(exists(kFile));
  sem_close(semaphore);
}

TEST_F(UpdateLock, KeepsItsValueWhenItIsDestroyed) {
  sem_t* const semaphore = lock().create_semaphore();
  sem_wait(semaphore);

  lock().destroy_semaphore();

  EXPECT_TRUE(exists(kFile));
  EXPECT_EQ(valueOf(semaphore), 0) << "and the earlier handle stays open";
  sem_close(semaphore);
}

TEST_F(UpdateLock, ReportsAFailedOpen) {
  ASSERT_EQ(mount("none", "/dev/shm", "tmpfs", MS_RDONLY, nullptr), 0);

  sem_t* const semaphore = lock().create_semaphore();
  const int error = errno;
  lock().destroy_semaphore();
  umount("/dev/shm");

  EXPECT_EQ(semaphore, nullptr);
  EXPECT_EQ(error, EROFS);
  EXPECT_THAT(recording::messages(),
              ElementsAre(std::string("6 fw-update-common.cpp create_semaphore ") + kOpenFailed,
                          std::string("6 fw-update-common.cpp destroy_semaphore ") + kOpenFailed));
  EXPECT_THAT(recording::traceFormats(), ElementsAre(kOpenFailed, kOpenFailed));
}
