// SPDX-License-Identifier: Apache-2.0
// The secrets by which a server knows the set: a token, one line of a file that nobody else may use, and
// the key of the set's certificate. Any thread.
#ifndef FW_FLEET_TOKEN_H
#define FW_FLEET_TOKEN_H

#include <string>

namespace fleet {

struct TokenRead {
  std::string token;    // empty when there is a problem
  std::string problem;  // a sentence; never with anything of the file's content
};

TokenRead readToken(const std::string& path);

// Why the file of the key is not used: a sentence; empty when it is. The key itself is not looked at.
std::string problemOfKey(const std::string& path);

}  // namespace fleet

#endif
