// SPDX-License-Identifier: Apache-2.0
#include "list-seen.h"

#include <fcntl.h>
#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>

#include <cerrno>
#include <memory>

#include "file-descriptor.h"
#include "system-error.h"
#include "whole-file.h"

namespace fleet {
namespace {

constexpr char kFile[] = "list.seen";
constexpr int kFormat = 1;
constexpr std::size_t kLargest = 4096;

std::optional<SeenList> parseSeen(const std::string& text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  Json::Value value;
  try {
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    const bool isSeen = reader->parse(text.data(), text.data() + text.size(), &value, nullptr) &&
                        value["format"] == kFormat && value["number"].isInt64() &&
                        value["issued"].isInt64() && value["sha256"].isString() && value["offered"].isBool();
    if (isSeen) {
      return SeenList{value["number"].asInt64(), value["issued"].asInt64(), value["sha256"].asString(),
                      value["offered"].asBool()};
    }
  } catch (const Json::Exception&) {  // too deep
  }
  return std::nullopt;
}

}  // namespace

bool operator==(const SeenList& one, const SeenList& other) {
  return one.number == other.number && one.issued == other.issued && one.sha256 == other.sha256 &&
         one.isOffered == other.isOffered;
}

std::optional<SeenList> readSeen(const std::string& directory) {
  const std::string path = directory + "/" + kFile;
  std::string text;
  const int error = base::readFile(path, kLargest, text);
  if (error == ENOENT) {
    return std::nullopt;
  }
  if (error != 0) {
    throw SeenUnusable(path + " cannot be read: " + base::errnoText(error) + ".");
  }
  const auto seen = parseSeen(text);
  if (!seen) {
    throw SeenUnusable(
        path + " is damaged, or was made by a newer fw-fleet: no release list is used until it is removed.");
  }
  return seen;
}

void writeSeen(const std::string& directory, const SeenList& seen) {
  Json::Value value;
  value["format"] = kFormat;
  value["number"] = static_cast<Json::Int64>(seen.number);
  value["issued"] = static_cast<Json::Int64>(seen.issued);
  value["sha256"] = seen.sha256;
  value["offered"] = seen.isOffered;
  const base::FileDescriptor opened(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const int error = opened ? base::replaceFileAt(opened.get(), kFile,
                                                 Json::writeString(Json::StreamWriterBuilder(), value), true)
                           : errno;
  if (error != 0) {
    throw SeenUnusable(directory + "/" + kFile + " cannot be written: " + base::errnoText(error) + ".");
  }
}

}  // namespace fleet
