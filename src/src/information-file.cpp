#include "information-file.h"

#include <fstream>

bool parseInformation(const std::string& path, Json::Value& root) {
  try {
    std::ifstream file(path, std::ios::binary);
    std::string errors;
    if (!Json::parseFromStream(Json::CharReaderBuilder(), file, &root, &errors) || !root.isObject()) {
      return false;
    }
    const Json::Value version = root.get("version", "0000");
    return !version.isArray() && !version.isObject();
  } catch (const Json::Exception&) {
    return false;
  }
}
