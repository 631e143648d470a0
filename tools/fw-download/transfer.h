// SPDX-License-Identifier: Apache-2.0
// One request for a package, or for the rest of one, as the configuration wants it made. Follows no
// redirect. Stateless.
#ifndef FW_DOWNLOAD_TRANSFER_H
#define FW_DOWNLOAD_TRANSFER_H

#include <cstdint>
#include <string>

#include "configuration.h"
#include "exchange.h"
#include "response.h"

namespace fwdownload {

using transfer::Answer;
using transfer::Receiver;
using transfer::Response;

struct Request {
  std::string url;
  std::int64_t first = 0;  // the first byte wanted; above 0 only together with validator
  std::string validator;
};

// Throws Failure: when there is no connection, or when what comes is not what the
// server announced; and what the receiver throws.
Answer perform(const Request& request, const Configuration& configuration, Receiver& receiver);

}  // namespace fwdownload

#endif
