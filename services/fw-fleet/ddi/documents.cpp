// SPDX-License-Identifier: Apache-2.0
#include "documents.h"

#include <json/reader.h>
#include <json/value.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <memory>
#include <string_view>
#include <system_error>

#include "printable-text.h"

namespace fleet::ddi {
namespace {

constexpr int kDeepest = 64;
constexpr std::size_t kMostValues = 65536;  // 100 chunks of 50 artifacts have fewer
constexpr std::size_t kLongestIdentity = 64;
constexpr std::size_t kLongestAddress = 2048;
constexpr std::size_t kDigitsOfSha256 = 64;
// Larger numbers are not exact in every program that writes documents.
constexpr std::int64_t kLargestSize = std::int64_t{1} << 53;

constexpr struct {
  const char* name;
  Handling handling;
} kHandlings[] = {{"skip", Handling::Skip}, {"attempt", Handling::Attempt}, {"forced", Handling::Forced}};

constexpr struct {
  const char* name;
  std::string Poll::*address;
} kLinks[] = {
    {"deploymentBase", &Poll::deployment},     {"cancelAction", &Poll::cancel},
    {"confirmationBase", &Poll::confirmation}, {"installedBase", &Poll::installed},
    {"configData", &Poll::configData},
};

// About as many as the text has, and no less. A value takes many times the room of its text.
std::size_t valuesIn(const std::string& text) {
  std::size_t count = 1;
  bool isQuoted = false;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (isQuoted && text[at] == '\\') {
      ++at;
    } else if (text[at] == '"') {
      isQuoted = !isQuoted;
    } else if (!isQuoted && (text[at] == ',' || text[at] == '[' || text[at] == '{')) {
      ++count;
    }
  }
  return count;
}

Json::Value parsed(const std::string& text, std::size_t most) {
  if (text.size() > most || valuesIn(text) > kMostValues) {
    throw Unreadable("The server's answer is larger than any document of its.");
  }
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["stackLimit"] = kDeepest;
  Json::Value value;
  try {
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (reader->parse(text.data(), text.data() + text.size(), &value, nullptr) && value.isObject()) {
      return value;
    }
  } catch (const Json::Exception&) {  // too deep
  }
  throw Unreadable("The server's answer is no JSON document.");
}

// Null where there is none; a member of what is no object is none, too.
const Json::Value& in(const Json::Value& object, const char* name) {
  return object.isObject() ? object[name] : Json::Value::nullSingleton();
}

// Safe to show and to keep; empty when it is no text.
std::string textIn(const Json::Value& object, const char* name) {
  const Json::Value& member = in(object, name);
  return member.isString() ? base::printableText(member.asString()) : "";
}

// An address goes to a request as it is, so it must be one.
std::string addressIn(const Json::Value& links, const char* name) {
  const Json::Value& member = in(in(links, name), "href");
  const std::string address = member.isString() ? member.asString() : "";
  const bool isHttp = address.rfind("https://", 0) == 0 || address.rfind("http://", 0) == 0;
  const bool isPlain =
      std::all_of(address.begin(), address.end(), [](char byte) { return byte > ' ' && byte <= '~'; });
  return isHttp && isPlain && address.size() <= kLongestAddress ? address : "";
}

// Some servers write a number.
std::string identityIn(const Json::Value& object, const char* name) {
  const Json::Value& member = in(object, name);
  const std::string identity = member.isString() || member.isIntegral() ? member.asString() : "";
  const bool isPlain =
      std::all_of(identity.begin(), identity.end(), [](char byte) { return byte > ' ' && byte <= '~'; });
  if (identity.empty() || identity.size() > kLongestIdentity || !isPlain) {
    throw Unreadable(std::string("The server's answer has no usable \"") + name + "\".");
  }
  return identity;
}

std::optional<std::int64_t> sizeIn(const Json::Value& object) {
  const Json::Value& member = in(object, "size");
  if (!member.isInt64() || member.asInt64() < 0 || member.asInt64() > kLargestSize) {
    return std::nullopt;
  }
  return member.asInt64();
}

// As it is compared: digits of one kind.
std::string sha256In(const Json::Value& hashes) {
  std::string digits = textIn(hashes, "sha256");
  std::transform(digits.begin(), digits.end(), digits.begin(), [](char byte) {
    return byte >= 'A' && byte <= 'F' ? static_cast<char>(byte - 'A' + 'a') : byte;
  });
  const bool isHash =
      digits.size() == kDigitsOfSha256 && digits.find_first_not_of("0123456789abcdef") == std::string::npos;
  return isHash ? digits : "";
}

Artifact artifactOf(const Json::Value& value) {
  Artifact artifact;
  artifact.fileName = textIn(value, "filename");
  artifact.size = sizeIn(value);
  artifact.sha256 = sha256In(in(value, "hashes"));
  const Json::Value& links = in(value, "_links");
  artifact.address = addressIn(links, "download");
  if (artifact.address.empty()) {
    artifact.address = addressIn(links, "download-http");  // all that some servers give, with TLS as well
  }
  return artifact;
}

Chunk chunkOf(const Json::Value& value) {
  Chunk chunk;
  chunk.part = textIn(value, "part");
  chunk.name = textIn(value, "name");
  chunk.version = textIn(value, "version");
  const Json::Value& artifacts = in(value, "artifacts");
  if (artifacts.isArray()) {
    std::transform(artifacts.begin(), artifacts.end(), std::back_inserter(chunk.artifacts), artifactOf);
  }
  return chunk;
}

std::string problemOf(const Artifact& artifact, const Chunk& chunk) {
  const std::string which = artifact.fileName + " of " + chunk.name;
  if (artifact.fileName.empty()) {
    return "An artifact of " + chunk.name + " has no file name.";
  }
  if (!artifact.size || *artifact.size == 0) {
    return "The server does not say how large " + which + " is.";
  }
  if (artifact.sha256.empty()) {
    return "The server gives no SHA-256 of " + which + ".";
  }
  return artifact.address.empty() ? "The server gives no address of " + which + "." : "";
}

std::string problemOf(const Chunk& chunk) {
  if (chunk.name.empty() || chunk.version.empty()) {
    return "A software module of the action has no name or no version.";
  }
  if (chunk.artifacts.empty()) {
    return chunk.name + " has no artifacts.";
  }
  if (chunk.artifacts.size() > kMostArtifacts) {
    return chunk.name + " has more than " + std::to_string(kMostArtifacts) + " artifacts.";
  }
  for (const Artifact& artifact : chunk.artifacts) {
    if (const std::string problem = problemOf(artifact, chunk); !problem.empty()) {
      return problem;
    }
  }
  return "";
}

std::string problemOf(const std::vector<Chunk>& chunks) {
  if (chunks.empty()) {
    return "The action has no software modules.";
  }
  for (auto chunk = chunks.begin(); chunk != chunks.end(); ++chunk) {
    if (const std::string problem = problemOf(*chunk); !problem.empty()) {
      return problem;
    }
    if (std::any_of(chunks.begin(), chunk, [&](const Chunk& other) { return other.name == chunk->name; })) {
      return chunk->name + " stands in the action twice.";
    }
  }
  return "";
}

// Names are kept long after an action is over.
bool hasLongNames(const Chunk& chunk) {
  return chunk.name.size() > kLongestName || chunk.version.size() > kLongestName ||
         std::any_of(chunk.artifacts.begin(), chunk.artifacts.end(),
                     [](const Artifact& artifact) { return artifact.fileName.size() > kLongestName; });
}

Handling handlingOf(const std::string& name) {
  for (const auto& row : kHandlings) {
    if (name == row.name) {
      return row.handling;
    }
  }
  return Handling::Skip;
}

Window windowIn(const Json::Value& deployment) {
  const Json::Value& window = in(deployment, "maintenanceWindow");
  if (window.isNull()) {
    return Window::None;
  }
  return window == Json::Value("available") ? Window::Available : Window::Unavailable;
}

// body: the member that has the deployment.
Deployment deploymentIn(const std::string& text, const char* body) {
  const Json::Value document = parsed(text, kLargestDocument);
  const Json::Value& value = in(document, body);
  Deployment deployment;
  deployment.id = identityIn(document, "id");
  if (!value.isObject()) {
    throw Unreadable(std::string("The server's answer has no \"") + body + "\".");
  }
  deployment.download = handlingOf(textIn(value, "download"));
  deployment.update = handlingOf(textIn(value, "update"));
  deployment.window = windowIn(value);
  const Json::Value& chunks = in(value, "chunks");
  if (chunks.isArray() && chunks.size() > kMostChunks) {
    deployment.problem = "The action has more than " + std::to_string(kMostChunks) + " software modules.";
    return deployment;
  }
  if (chunks.isArray()) {
    std::transform(chunks.begin(), chunks.end(), std::back_inserter(deployment.chunks), chunkOf);
  }
  if (std::any_of(deployment.chunks.begin(), deployment.chunks.end(), hasLongNames)) {
    deployment.chunks.clear();
    deployment.problem =
        "A name or a version in the action has more than " + std::to_string(kLongestName) + " bytes.";
    return deployment;
  }
  deployment.problem = problemOf(deployment.chunks);
  return deployment;
}

// Takes a number, with the ":" behind it unless it is the last; -1 when there is none.
int takeNumber(std::string_view& text, bool isLast) {
  int number = -1;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
  const auto length = static_cast<std::size_t>(read.ptr - text.data());
  if (read.ec != std::errc() || text[0] == '-' || (length == text.size()) != isLast ||
      (!isLast && text[length] != ':')) {
    return -1;
  }
  text.remove_prefix(isLast ? length : length + 1);
  return number;
}

}  // namespace

std::optional<std::chrono::seconds> parseSleep(const std::string& text) {
  constexpr int kMostDays = 365, kMostHours = 9999, kHoursOfDay = 24, kSixty = 60;
  std::string_view left = text;
  const bool hasDays = std::count(text.begin(), text.end(), ':') == 3;
  const int days = hasDays ? takeNumber(left, false) : 0;
  const int hours = takeNumber(left, false);
  const int minutes = takeNumber(left, false);
  const int seconds = takeNumber(left, true);
  if (days < 0 || days > kMostDays || hours < 0 || hours > (hasDays ? kHoursOfDay - 1 : kMostHours) ||
      minutes < 0 || minutes >= kSixty || seconds < 0 || seconds >= kSixty) {
    return std::nullopt;
  }
  const std::chrono::seconds sleep = std::chrono::hours(days * kHoursOfDay + hours) +
                                     std::chrono::minutes(minutes) + std::chrono::seconds(seconds);
  return sleep.count() > 0 ? std::optional(sleep) : std::nullopt;
}

Poll parsePoll(const std::string& text) {
  const Json::Value document = parsed(text, kLargestShortDocument);
  Poll poll;
  const Json::Value& sleep = in(in(in(document, "config"), "polling"), "sleep");
  if (sleep.isString()) {
    poll.sleep = parseSleep(sleep.asString());
  }
  const Json::Value& links = in(document, "_links");
  for (const auto& link : kLinks) {
    poll.*link.address = addressIn(links, link.name);
    if ((poll.*link.address).empty() && !in(links, link.name).isNull()) {
      throw Unreadable(std::string("The server's link \"") + link.name + "\" is no address.");
    }
  }
  return poll;
}

Deployment parseDeployment(const std::string& text) {
  return deploymentIn(text, "deployment");
}

Deployment parseConfirmation(const std::string& text) {
  return deploymentIn(text, "confirmation");
}

std::string parseCancel(const std::string& text) {
  const Json::Value document = parsed(text, kLargestShortDocument);
  return identityIn(in(document, "cancelAction"), "stopId");
}

}  // namespace fleet::ddi
