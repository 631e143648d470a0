// SPDX-License-Identifier: Apache-2.0
#include "image-information.h"

#include <json/reader.h>

#include <cerrno>
#include <sstream>

#include "dotted-version.h"
#include "flash-file.h"
#include "posix-file.h"

namespace fwcomponent {
namespace {

constexpr std::size_t kLargestInformation = std::size_t{64} * 1024;  // as for the update library

}  // namespace

std::string informationBeside(const std::string& imagePath) {
  const std::size_t slash = imagePath.rfind('/');
  return slash == std::string::npos ? "info.json" : imagePath.substr(0, slash + 1) + "info.json";
}

Json::Value readInformation(const std::string& path) try {
  std::istringstream stream(readText(path, kLargestInformation));
  Json::Value root;
  if (!Json::parseFromStream(Json::CharReaderBuilder(), stream, &root, nullptr) || !root.isObject()) {
    fail(EBADMSG, path);
  }
  return root;
} catch (const Json::Exception&) {
  fail(EBADMSG, path);
}

std::string versionOfImage(const std::string& imagePath) {
  const std::string path = informationBeside(imagePath);
  const Json::Value version = readInformation(path).get("version", "0000");
  if (version.isArray() || version.isObject()) {
    fail(EBADMSG, path);
  }
  const std::string text = version.asString();
  if (!isVersion(text) || text.size() >= kVersionCapacity) {
    fail(EINVAL, path + " states no version");
  }
  return text;
}

}  // namespace fwcomponent
