// SPDX-License-Identifier: Apache-2.0
// Faults that the real thing does not give on request. A test program that links
// this takes the place of a few functions of the C and C++ libraries; each passes
// through unless a test says otherwise. It is built as a shared library too, for
// programs that tests start with LD_PRELOAD.
#ifndef FAULT_INJECTION_H
#define FAULT_INJECTION_H

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

namespace faults {

extern std::function<void()> beforeSemWait;
extern std::function<void(int result, int error)> afterSemWait;
extern bool failThreads;

// In place of a timed wait on a condition, when set.
extern std::function<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)> onTimedWait;
// A notification that comes before its waiter waits is lost, and the waiter runs out
// of time. Here notifications wait for their waiter; with this set it is the waiter
// that waits, so that the notification is surely lost.
extern std::atomic<bool> holdWaitUntilNotified;
// How far in the future the last timed wait's deadline lay.
extern double lastWaitSeconds;
// How far the system clock has jumped ahead.
extern std::atomic<std::chrono::seconds> systemClockAhead;

// Runs after a file's status was read without following links.
extern std::function<void(const char* path)> afterLstat;

// Libraries opened and closed, as "dlopen(path)" and "dlclose(path)", in order. To be
// read while no other thread opens one.
std::vector<std::string>& libraryCalls();

void reset();

}  // namespace faults

#endif
