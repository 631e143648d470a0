// SPDX-License-Identifier: Apache-2.0
// What a directory holds: names, kinds, modes, sizes and contents, as one number, so that
// equal ones are looked at once.
#ifndef SANDBOX_POWER_CUT_TREE_DIGEST_H
#define SANDBOX_POWER_CUT_TREE_DIGEST_H

#include <string>
#include <vector>

namespace powercut {

struct Tree {
  std::string digest;                   // hexadecimal
  std::vector<std::string> unreadable;  // path and reason
};

// Links are not followed. What cannot be read is part of the digest.
Tree lookAtTree(const std::string& directory);

}  // namespace powercut

#endif
