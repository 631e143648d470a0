// SPDX-License-Identifier: Apache-2.0
// How the files of an extension package become one file. A plain function; any thread.
#ifndef FW_IMAGE_SQUASHFS_H
#define FW_IMAGE_SQUASHFS_H

#include <string>
#include <vector>

namespace image {

// The command that packs the files of a folder, itself left out, into a package. The same
// files give the same bytes, on every machine and at any time: no time and no owner, and
// files of mode 0644 whatever the umask. SOURCE_DATE_EPOCH would contradict the times given
// here; its environment must be without.
std::vector<std::string> squashfsCommand(const std::string& folder, const std::string& package);

}  // namespace image

#endif
