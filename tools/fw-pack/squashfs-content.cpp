// SPDX-License-Identifier: Apache-2.0
#include "squashfs-content.h"

#include "child-program.h"

namespace fwpack {

bool contentOf(const std::string& package, const std::string& name,
               const std::function<void(std::string_view bytes)>& output) {
  return runProgram({"unsquashfs", "-cat", package, name}, kSquashfsTools, output);
}

std::string textIn(const std::string& package, const std::string& name, std::size_t most) {
  std::string text;
  contentOf(package, name, [&](std::string_view bytes) { text.append(bytes.substr(0, most - text.size())); });
  return text;
}

}  // namespace fwpack
