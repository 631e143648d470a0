// SPDX-License-Identifier: Apache-2.0
// The lock that keeps a record's information and decision whole when a timed-out
// worker reads them while a query writes them. One for the process; held only to
// copy, never while a module or another operation is called.
#ifndef RECORD_LOCK_H
#define RECORD_LOCK_H

#include <mutex>

std::mutex& recordMutex();

#endif
