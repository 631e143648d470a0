// SPDX-License-Identifier: Apache-2.0
// Addresses, taken apart by libcurl's own rules, so that nothing here understands one
// differently from what is connected to. Stateless.
#ifndef TRANSFER_URL_H
#define TRANSFER_URL_H

#include <optional>
#include <string>

namespace transfer {

struct Url {
  std::string text;  // without user, password and what goes with them
  std::string scheme;
  std::string host;
  std::string port;  // that of the scheme when none is given
  std::string user;  // decoded
  std::string password;
};

// Nothing for what is no address.
std::optional<Url> parseUrl(const std::string& text);

// What people and logs may see: neither user nor password, and nothing from the "?" on,
// where servers put their tokens.
std::string shown(const std::string& url);

// Whether both are served by the same server, so that credentials for the one may be
// sent to the other.
bool sameServer(const std::string& url, const std::string& other);

}  // namespace transfer

#endif
