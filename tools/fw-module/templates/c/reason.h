/* Why an update failed: a line in the platform's log under the library's name. fw-update
 * puts the last one behind its own sentence, and the history keeps it. */
#ifndef REASON_H
#define REASON_H

#include <dlog.h>
#include <string.h>

/* What failed, and its errno value, which is the result with a minus. */
static inline int failed(const char* what, int error) {
  __dlog_print(2, DLOG_ERROR_PRIORITY, "FWUPDATE", "@NAME@: %s: %s", what, strerror(error));
  return -error;
}

#endif
