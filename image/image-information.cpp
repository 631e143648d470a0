// SPDX-License-Identifier: Apache-2.0
#include "image-information.h"

#include <json/json.h>

#include <memory>

#include "image-crc.h"

namespace image {
namespace {

// The parser throws at what is nested too deeply.
bool parse(const std::string& text, Json::Value& document) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  try {
    return reader->parse(text.data(), text.data() + text.size(), &document, nullptr);
  } catch (const Json::Exception&) {
    return false;
  }
}

}  // namespace

void Crc::add(const void* bytes, std::size_t size) {
  value_ = extendImageCrc(value_, bytes, size);
}

std::uint32_t crcOf(const std::string& bytes) {
  return extendImageCrc(0, bytes.data(), bytes.size());
}

std::string toText(const Information& information) {
  Json::Value document;
  document["version"] = information.version;
  document["crc"] = information.crc;
  document["expected_time"] = information.expectedTime;
  if (!information.updateClass.empty()) {
    document["class"] = information.updateClass;
  }
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, document) + "\n";
}

std::optional<Information> parseInformation(const std::string& text) {
  Json::Value document;
  if (!parse(text, document) || !document.isObject() || !document["version"].isString() ||
      !document["crc"].isUInt() || !document["expected_time"].isUInt()) {
    return std::nullopt;
  }
  const Json::Value& updateClass = document["class"];
  return Information{document["version"].asString(), document["crc"].asUInt(),
                     document["expected_time"].asUInt(),
                     updateClass.isString() ? updateClass.asString() : ""};
}

}  // namespace image
