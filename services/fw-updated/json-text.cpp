// SPDX-License-Identifier: Apache-2.0
#include "json-text.h"

#include <json/reader.h>

#include <algorithm>
#include <iterator>
#include <memory>

#include "printable-text.h"

namespace updated {

Json::Value parsedObject(const std::string& text) {
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;
  builder["stackLimit"] = 64;
  Json::Value value;
  try {
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) {
      return Json::objectValue;
    }
  } catch (const Json::Exception&) {  // too deep
    return Json::objectValue;
  }
  return value.isObject() ? value : Json::objectValue;
}

std::string textIn(const Json::Value& object, const char* member) {
  if (!object[member].isString()) {
    return "";
  }
  std::string text = base::validText(object[member].asString());
  for (std::size_t at = 0; (at = text.find('\0', at)) != std::string::npos;) {
    text.replace(at, 1, "\\x00");
  }
  return text;
}

std::vector<Json::Value> objectsIn(const Json::Value& list) {
  std::vector<Json::Value> objects;
  if (list.isArray()) {
    std::copy_if(list.begin(), list.end(), std::back_inserter(objects),
                 [](const Json::Value& one) { return one.isObject(); });
  }
  return objects;
}

}  // namespace updated
