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

std::optional<Information> parseInformation(const std::string& text) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value document;
  if (!reader->parse(text.data(), text.data() + text.size(), &document, nullptr) || !document.isObject() ||
      !document["version"].isString() || !document["crc"].isUInt() || !document["expected_time"].isUInt()) {
    return std::nullopt;
  }
  return Information{document["version"].asString(), document["crc"].asUInt(),
                     document["expected_time"].asUInt()};
}

}  // namespace fwpack
