// SPDX-License-Identifier: Apache-2.0
// The platform log. Plain C compiles it too, for modules in C.
#ifndef PLATFORM_DLOG_H
#define PLATFORM_DLOG_H

// Priorities of the platform log.
enum {
  DLOG_DEBUG_PRIORITY = 3,
  DLOG_INFO_PRIORITY = 4,
  DLOG_WARN_PRIORITY = 5,
  DLOG_ERROR_PRIORITY = 6,
};

// Writes one message. format is printf's, %m included: the error text of errno
// at the time of the call. errno is left as it was. May be called from any
// thread; messages of several threads are not mixed. A null tag shows as
// "(null)"; a null format writes nothing.
// Returns the length of the formatted message in bytes (0 when messages are
// switched off), or a negative errno value when it could not be formatted or
// written. A program may define this symbol itself.
#ifdef __cplusplus
extern "C" {
#endif
int __dlog_print(int log_id, int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 4, 5), visibility("default")));
#ifdef __cplusplus
}
#endif

#endif
