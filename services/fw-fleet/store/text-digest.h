// SPDX-License-Identifier: Apache-2.0
// The SHA-256 of a text. Stateless.
#ifndef FW_FLEET_TEXT_DIGEST_H
#define FW_FLEET_TEXT_DIGEST_H

#include <string>

namespace fleet {

// 64 digits; empty when it cannot be computed.
std::string sha256Of(const std::string& text);

}  // namespace fleet

#endif
