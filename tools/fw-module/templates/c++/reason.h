// Why an update failed: a line in the platform's log under the library's name. fw-update
// puts the last one behind its own sentence, and the history keeps it.
#ifndef REASON_H
#define REASON_H

#include <dlog.h>

#include <cerrno>
#include <cstring>
#include <string>

// What failed, and its errno value, which is the result with a minus.
inline int failed(const std::string& what, int error) {
  __dlog_print(2, DLOG_ERROR_PRIORITY, "FWUPDATE", "@NAME@: %s: %s", what.c_str(), std::strerror(error));
  return -error;
}

#endif
