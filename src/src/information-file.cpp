// SPDX-License-Identifier: Apache-2.0
#include "information-file.h"

#include <sstream>

#include "regular-file.h"

namespace {

constexpr std::size_t kLargestInformation = std::size_t{64} * 1024;

bool parse(const std::string& text, Json::Value& root) {
  std::istringstream stream(text);
  return Json::parseFromStream(Json::CharReaderBuilder(), stream, &root, nullptr);
}

}  // namespace

bool parseInformation(const std::string& path, Json::Value& root) {
  std::string text;
  if (!readRegularFile(path, kLargestInformation, text)) {
    return false;
  }
  try {
    if (!parse(text, root) || !root.isObject()) {
      return false;
    }
    const Json::Value version = root.get("version", "0000");
    return !version.isArray() && !version.isObject();
  } catch (const Json::Exception&) {
    return false;
  }
}
