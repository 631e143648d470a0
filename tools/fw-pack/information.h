// SPDX-License-Identifier: Apache-2.0
// The description that stands beside an image: "info.json". Plain functions.
#ifndef FW_PACK_INFORMATION_H
#define FW_PACK_INFORMATION_H

#include <cstdint>
#include <optional>
#include <string>

#include "files.h"

namespace fwpack {

struct Information {
  std::string version;
  std::uint32_t crc = 0;
  std::uint32_t expectedTime = 0;  // seconds
};

// The image's CRC with what the caller states. Throws Failure for an empty image.
Information describe(const InputFile& image, const std::string& version, std::uint32_t expectedTime);

std::string toText(const Information& information);

// Nothing when the text is no description as the library reads it.
std::optional<Information> parseInformation(const std::string& text);

}  // namespace fwpack

#endif
