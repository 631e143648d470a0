// SPDX-License-Identifier: Apache-2.0
#include "information.h"

#include <json/json.h>

#include <memory>

#include "exit-code.h"

namespace fwpack {

Information describe(const InputFile& image, const std::string& version, std::uint32_t expectedTime) {
  if (image.size() == 0) {
    throw Failure(ExitCode::Failed, image.path() + " is empty; modules refuse an empty image");
  }
  return {version, imageCrc(image), expectedTime};
}

std::string toText(const Information& information) {
  Json::Value document;
  document["version"] = information.version;
  document["crc"] = information.crc;
  document["expected_time"] = information.expectedTime;
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, document) + "\n";
}

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

std::optional<Information> parseInformation(const std::string& text) {
  Json::Value document;
  if (!parse(text, document) || !document.isObject() || !document["version"].isString() ||
      !document["crc"].isUInt() || !document["expected_time"].isUInt()) {
    return std::nullopt;
  }
  return Information{document["version"].asString(), document["crc"].asUInt(),
                     document["expected_time"].asUInt()};
}

}  // namespace fwpack
