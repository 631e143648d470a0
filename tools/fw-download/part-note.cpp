// SPDX-License-Identifier: Apache-2.0
#include "part-note.h"

#include <json/json.h>

#include <algorithm>
#include <memory>

namespace fwdownload {

bool isMark(std::string_view validator) {
  return !validator.empty() && std::all_of(validator.begin(), validator.end(),
                                           [](char byte) { return byte >= ' ' && byte <= '~'; });
}

std::string noteText(const PartNote& note) {
  Json::Value document;
  document["url"] = note.origin.url;
  document["validator"] = note.origin.validator;
  document["total"] = static_cast<Json::Int64>(note.origin.total);
  document["synced"] = static_cast<Json::Int64>(note.synced);
  document["boot"] = note.boot;
  return Json::writeString(Json::StreamWriterBuilder(), document) + "\n";
}

std::optional<PartNote> parseNote(const std::string& text) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value document;
  PartNote note;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &document, nullptr) || !document.isObject()) {
      return std::nullopt;
    }
    note.origin.url = document["url"].asString();
    note.origin.validator = document["validator"].asString();
    note.origin.total = document["total"].asInt64();
    note.synced = document["synced"].asInt64();
    note.boot = document["boot"].asString();
  } catch (const Json::Exception&) {  // nested too deeply, or a member of another type
    return std::nullopt;
  }
  const bool usable = note.origin.canBeContinued() && note.synced >= 0 && note.synced <= note.origin.total;
  return usable ? std::optional(note) : std::nullopt;
}

}  // namespace fwdownload
