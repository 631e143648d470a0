// SPDX-License-Identifier: Apache-2.0
// Whether a package that lies on the disk may become the image: its signature, held
// against the keys, lists, model and minimum versions of this set. One download, one
// thread.
#ifndef FW_DOWNLOAD_PACKAGE_CHECK_H
#define FW_DOWNLOAD_PACKAGE_CHECK_H

#include <string>

#include "configuration.h"
#include "package-signature.h"

namespace fwdownload {

// Reads the open file from its first byte to its last. Throws Failure when the package is
// refused. verdict: Valid, or that of a package without a signature when the configuration
// takes those.
fwpackage::SignatureReport checkPackage(int file, const std::string& package,
                                        const Configuration& configuration);

// To be called before the package becomes the image, so that wherever this ends, what lies
// there has been noted: from then on older packages are refused, as far as it says so.
// Throws Failure.
void raiseMinimumVersion(const fwpackage::SignatureReport& report);

}  // namespace fwdownload

#endif
