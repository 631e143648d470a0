// SPDX-License-Identifier: Apache-2.0
// The components of a release, from a directory of their artifacts: what their signatures state, and only
// what is signed. Errors are thrown as Failure.
#ifndef FW_PACK_RELEASE_INPUT_H
#define FW_PACK_RELEASE_INPUT_H

#include <string>
#include <vector>

#include "package-signature.h"
#include "release-list.h"

namespace fwpack {

struct ReleaseInput {
  image::ReleaseComponent component;
  std::vector<std::string> paths;  // of its artifacts, in their order
};

// In the order of the components' names. trusts: a signature that one of them takes is good.
std::vector<ReleaseInput> readReleaseInput(const std::string& directory,
                                           const std::vector<fwpackage::Trust>& trusts);

}  // namespace fwpack

#endif
