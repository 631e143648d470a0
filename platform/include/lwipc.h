// SPDX-License-Identifier: Apache-2.0
// Lightweight events between processes. An event is done once and stays so until
// the device starts anew. Any thread.
#ifndef PLATFORM_LWIPC_H
#define PLATFORM_LWIPC_H

// Signals the event of this name (an absolute path, which is a name only: no
// file is made there) as done: to every process that waits for it, and to every
// one that starts to wait later. 0 on success, else a negative errno value.
extern "C" __attribute__((visibility("default"))) int LwipcEventDone(const char* event);

// Waits until the event of this name is done; returns at once when it already
// is. timeout_ms: longest wait in milliseconds, 0 only asks, negative is without
// end. Signals do not end the wait. 0 when it is done, -ETIMEDOUT when the time is
// over, else another negative errno value.
extern "C" __attribute__((visibility("default"))) int LwipcEventWait(const char* event, int timeout_ms);

#endif
