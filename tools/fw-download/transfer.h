// SPDX-License-Identifier: Apache-2.0
// One request to one address, with libcurl. It follows no redirect and knows nothing
// of files: what comes is handed on as it comes. One object, one request, one thread.
#ifndef FW_DOWNLOAD_TRANSFER_H
#define FW_DOWNLOAD_TRANSFER_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "configuration.h"
#include "response.h"

namespace fwdownload {

struct Request {
  std::string url;
  std::int64_t first = 0;  // the first byte wanted; above 0 only together with validator
  std::string validator;
};

// Where what comes goes. Either operation may throw Failure, which ends the transfer
// and comes out of Perform.
class Receiver {
 public:
  virtual ~Receiver() = default;
  // Once, before any bytes, for an answer of 200 or 206.
  virtual void begin(const Response& response) = 0;
  virtual void take(const char* bytes, std::size_t count) = 0;
};

struct Answer {
  int code = 0;
  std::string redirectedTo;  // absolute; empty when there is none
};

// Throws Failure: when there is no connection, or when what comes is not what the
// server announced.
Answer perform(const Request& request, const Configuration& configuration, Receiver& receiver);

}  // namespace fwdownload

#endif
