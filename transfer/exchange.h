// SPDX-License-Identifier: Apache-2.0
// One request to one address, with libcurl. It follows no redirect, uses no proxy and knows nothing of
// files: what comes is handed on as it comes. One object, one request, one thread.
#ifndef TRANSFER_EXCHANGE_H
#define TRANSFER_EXCHANGE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "response.h"

namespace transfer {

// How a server is connected to, and how long it is waited for.
struct Connection {
  const char* userAgent = "";
  const char* protocols = "https,http";
  std::string caFile;             // empty: the certificates of the system
  std::string clientCertificate;  // both or neither
  std::string clientKey;
  long connectTimeoutSeconds = 20;
  long stallTimeoutSeconds = 30;
  long timeoutSeconds = 0;           // for all of it; 0: as long as it takes
  std::int64_t minimumSpeed = 1024;  // bytes a second, over the time above
  std::int64_t bytesPerSecond = 0;   // at most; 0: as many as come
};

struct Request {
  std::string url;
  const char* method = "GET";
  std::vector<std::string> headers = {};  // "Name: value"
  std::string body = {};                  // with PUT and POST
  std::string user = {};                  // nothing is sent without one of the two
  std::string password = {};
  const char* what = "package";  // for sentences: what comes
};

// Where what comes goes. Each operation may throw; that ends the transfer and comes out of perform.
class Receiver {
 public:
  virtual ~Receiver() = default;
  // Once, before any bytes, for an answer of 200 or 206.
  virtual void begin(const Response& response) = 0;
  virtual void take(const char* bytes, std::size_t count) = 0;
  // Now and then while it goes on, once a second at least.
  virtual void goOn() {}
};

struct Answer {
  int code = 0;
  std::string redirectedTo;  // absolute; empty when there is none
  Response response = {};
};

// Throws Failure: when there is no connection, or when what comes is not what the server announced.
Answer perform(const Request& request, const Connection& connection, Receiver& receiver);

}  // namespace transfer

#endif
