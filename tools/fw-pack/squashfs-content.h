// SPDX-License-Identifier: Apache-2.0
// What an extension package holds, read by the tools for squashfs. Errors are thrown as Failure.
#ifndef FW_PACK_SQUASHFS_CONTENT_H
#define FW_PACK_SQUASHFS_CONTENT_H

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace fwpack {

// False when there is no such file, or it cannot be read. package: an absolute path.
bool contentOf(const std::string& package, const std::string& name,
               const std::function<void(std::string_view bytes)>& output);

// So much of it at most.
std::string textIn(const std::string& package, const std::string& name, std::size_t most);

}  // namespace fwpack

#endif
