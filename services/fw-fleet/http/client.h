// SPDX-License-Identifier: Apache-2.0
// Requests to the fleet's server, for documents and with what it is told. The set shows who it is to this
// server alone, whatever address it is sent to. One thread.
#ifndef FW_FLEET_CLIENT_H
#define FW_FLEET_CLIENT_H

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include "configuration.h"
#include "exchange.h"
#include "status-meaning.h"

namespace fleet {

struct Reply {
  Meaning meaning = Meaning::Later;
  int status = 0;  // 0: there was no answer
  std::string body;
  std::optional<std::chrono::seconds> retryAfter;
  std::string sentence;  // when it is not Good; nothing of what the server said is in it
};

// Why the address may not be asked; empty when it may. From https nothing leads to http.
std::string refusalOf(const std::string& address, const Configuration& configuration);

// The connection, and the header that names the set, for an address of any server.
transfer::Connection connectionTo(const std::string& address, const Configuration& configuration);
transfer::Request requestTo(const std::string& address, const Configuration& configuration,
                            const std::string& token);

class Client {
 public:
  Client(Configuration configuration, std::string token);

  // most: bytes of the answer
  Reply get(Asked asked, const std::string& address, std::size_t most) const;
  // method: "PUT" or "POST"; body: JSON
  Reply tell(const char* method, const std::string& address, const std::string& body) const;

 private:
  Reply perform(Asked asked, transfer::Request request, std::size_t most) const;

  const Configuration configuration_;
  const std::string token_;
};

}  // namespace fleet

#endif
