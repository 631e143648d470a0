// SPDX-License-Identifier: Apache-2.0
#include "release-list.h"

#include <json/json.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <set>
#include <stdexcept>

namespace image {
namespace {

constexpr unsigned int kFormat = 1;
constexpr std::size_t kMostComponents = 100;
constexpr std::size_t kMostArtifacts = 50;
constexpr std::size_t kLongestText = 127;
constexpr std::size_t kLongestFile = 128;
constexpr std::int64_t kLargestArtifact = std::int64_t{1} << 40;
constexpr std::int64_t kLastTime = 253402300799;  // 9999-12-31T23:59:59Z

// what() is a clause.
struct Unreadable : std::runtime_error {
  using std::runtime_error::runtime_error;
};

void require(bool isGood, const char* problem) {
  if (!isGood) {
    throw Unreadable(problem);
  }
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isPrintable(const std::string& text) {
  return text.size() <= kLongestText &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

bool isName(const std::string& text) {
  return !text.empty() && text.size() <= kLongestText &&
         std::all_of(text.begin(), text.end(), [](char c) { return isDigit(c) || isLetter(c); });
}

bool isSha256(const std::string& text) {
  return text.size() == 64 &&
         std::all_of(text.begin(), text.end(), [](char c) { return isDigit(c) || (c >= 'a' && c <= 'f'); });
}

// The parser throws at what is nested too deeply.
bool parse(const std::string& text, Json::Value& document) {
  Json::CharReaderBuilder builder;
  builder["rejectDupKeys"] = true;
  builder["allowComments"] = false;
  builder["failIfExtra"] = true;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  try {
    return reader->parse(text.data(), text.data() + text.size(), &document, nullptr) && document.isObject();
  } catch (const Json::Exception&) {
    return false;
  }
}

// Empty where there is none.
std::string textIn(const Json::Value& object, const char* name, const char* problem) {
  const Json::Value& value = object[name];
  require(value.isString() || value.isNull(), problem);
  return value.isString() ? value.asString() : "";
}

std::int64_t numberIn(const Json::Value& object, const char* name, std::int64_t most, const char* problem) {
  const Json::Value& value = object[name];
  require(value.isInt64() && value.asInt64() >= 1 && value.asInt64() <= most, problem);
  return value.asInt64();
}

std::int64_t timeIn(const Json::Value& object, const char* name, const char* problem) {
  const auto time = parseTime(textIn(object, name, problem));
  require(time.has_value(), problem);
  return *time;
}

ReleaseArtifact artifactOf(const Json::Value& value) {
  require(value.isObject(), "an artifact is no object");
  ReleaseArtifact artifact;
  artifact.file = textIn(value, "file", "an artifact's file is no text");
  require(isArtifactName(artifact.file), "an artifact's file is no name of a file");
  artifact.size = numberIn(value, "size", kLargestArtifact, "an artifact has no size");
  artifact.sha256 = textIn(value, "sha256", "an artifact's SHA-256 is no text");
  require(isSha256(artifact.sha256), "an artifact has no SHA-256");
  return artifact;
}

std::vector<ReleaseArtifact> artifactsOf(const Json::Value& values) {
  require(values.isArray() && !values.empty() && values.size() <= kMostArtifacts,
          "a component has not 1 to 50 artifacts");
  std::vector<ReleaseArtifact> artifacts;
  std::set<std::string> files;
  for (const Json::Value& value : values) {
    artifacts.push_back(artifactOf(value));
    require(files.insert(artifacts.back().file).second, "two artifacts of a component have the same name");
  }
  return artifacts;
}

ReleaseComponent componentOf(const Json::Value& value) {
  require(value.isObject(), "a component is no object");
  ReleaseComponent component;
  component.name = textIn(value, "name", "a component's name is no text");
  require(isName(component.name), "a component has no name of firmware");
  component.version = textIn(value, "version", "a component's version is no text");
  require(!component.version.empty() && isPrintable(component.version), "a component has no version");
  component.minimumVersion = textIn(value, "minimumVersion", "a component's minimum version is no text");
  require(isPrintable(component.minimumVersion), "a component's minimum version is no version");
  component.model = textIn(value, "model", "a component's model is no text");
  require(isPrintable(component.model), "a component's model is no model");
  component.artifacts = artifactsOf(value["artifacts"]);
  return component;
}

ReleaseList listOf(const Json::Value& document) {
  ReleaseList list;
  list.number = numberIn(document, "number", kLargestReleaseNumber, "it has no number");
  list.issued = timeIn(document, "issued", "it does not say when it was issued");
  list.expires = timeIn(document, "expires", "it does not say when it expires");
  require(list.expires > list.issued, "it expires before it was issued");
  const Json::Value& components = document["components"];
  require(components.isArray() && components.size() <= kMostComponents, "it has not up to 100 components");
  std::set<std::string> names;
  for (const Json::Value& component : components) {
    list.components.push_back(componentOf(component));
    require(names.insert(list.components.back().name).second, "two components have the same name");
  }
  return list;
}

Json::Value jsonOf(const ReleaseComponent& component) {
  Json::Value value;
  value["name"] = component.name;
  value["version"] = component.version;
  if (!component.minimumVersion.empty()) {
    value["minimumVersion"] = component.minimumVersion;
  }
  if (!component.model.empty()) {
    value["model"] = component.model;
  }
  for (const ReleaseArtifact& artifact : component.artifacts) {
    Json::Value& entry = value["artifacts"].append(Json::Value());
    entry["file"] = artifact.file;
    entry["size"] = static_cast<Json::Int64>(artifact.size);
    entry["sha256"] = artifact.sha256;
  }
  return value;
}

// Of exactly so many digits at a place.
std::optional<int> digitsAt(const std::string& text, std::size_t at, std::size_t count) {
  int number = 0;
  for (std::size_t place = at; place < at + count; ++place) {
    if (!isDigit(text[place])) {
      return std::nullopt;
    }
    number = number * 10 + (text[place] - '0');
  }
  return number;
}

}  // namespace

std::string toText(const ReleaseList& list) {
  Json::Value document;
  document["format"] = kFormat;
  document["number"] = static_cast<Json::Int64>(list.number);
  document["issued"] = timeText(list.issued);
  document["expires"] = timeText(list.expires);
  document["components"] = Json::Value(Json::arrayValue);
  for (const ReleaseComponent& component : list.components) {
    document["components"].append(jsonOf(component));
  }
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  return Json::writeString(builder, document) + "\n";
}

ReleaseListRead parseReleaseList(const std::string& text) {
  Json::Value document;
  if (text.size() > kLargestReleaseList || !parse(text, document)) {
    return {std::nullopt, "it is no JSON object of at most 1 MiB", false};
  }
  if (!document["format"].isUInt() || document["format"].asUInt() < kFormat) {
    return {std::nullopt, "it does not say its format", false};
  }
  if (document["format"].asUInt() > kFormat) {
    return {std::nullopt, "it has a newer format", true};
  }
  try {
    return {listOf(document), "", false};
  } catch (const Unreadable& problem) {
    return {std::nullopt, problem.what(), false};
  }
}

bool isReleaseList(const std::string& text) {
  Json::Value document;
  return text.size() <= kLargestReleaseList && parse(text, document) && document["format"].isUInt() &&
         document["components"].isArray() && document.isMember("number");
}

bool isArtifactName(const std::string& name) {
  return !name.empty() && name.size() <= kLongestFile && name[0] != '.' &&
         std::all_of(name.begin(), name.end(),
                     [](char c) { return isDigit(c) || isLetter(c) || c == '.' || c == '_' || c == '-'; });
}

std::optional<std::int64_t> parseTime(const std::string& text) {
  constexpr char kShape[] = "0000-00-00T00:00:00Z";
  if (text.size() != sizeof kShape - 1) {
    return std::nullopt;
  }
  std::tm parts{};
  const struct {
    std::size_t at;
    std::size_t count;
    int& place;
  } kParts[] = {{0, 4, parts.tm_year},  {5, 2, parts.tm_mon},  {8, 2, parts.tm_mday},
                {11, 2, parts.tm_hour}, {14, 2, parts.tm_min}, {17, 2, parts.tm_sec}};
  for (const auto& part : kParts) {
    const auto number = digitsAt(text, part.at, part.count);
    if (!number) {
      return std::nullopt;
    }
    part.place = *number;
  }
  parts.tm_year -= 1900;
  parts.tm_mon -= 1;
  const std::int64_t seconds = timegm(&parts);
  // What is no day of the calendar, or has other marks, reads otherwise when it is written again.
  return seconds >= 0 && seconds <= kLastTime && timeText(seconds) == text ? std::optional(seconds)
                                                                           : std::nullopt;
}

std::string timeText(std::int64_t seconds) {
  const std::time_t time = std::clamp<std::int64_t>(seconds, 0, kLastTime);
  std::tm parts{};
  gmtime_r(&time, &parts);
  char text[32] = {};
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

}  // namespace image
