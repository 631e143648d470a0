// SPDX-License-Identifier: Apache-2.0
#include "feedback.h"

#include <json/value.h>
#include <json/writer.h>

#include "printable-text.h"

namespace fleet::ddi {
namespace {

// In the order of the enumerators.
constexpr const char* kExecutions[] = {"download", "downloaded", "proceeding", "scheduled",
                                       "resumed",  "closed",     "rejected"};
constexpr const char* kResults[] = {"none", "success", "failure"};

std::string written(const Json::Value& document) {
  Json::StreamWriterBuilder builder;  // what is not ASCII is escaped
  builder["indentation"] = "";
  return Json::writeString(builder, document);
}

// There are servers that refuse a message with markup, and with it the end of an action.
std::string plain(const std::string& message) {
  std::string text = base::printableText(message);
  for (char& byte : text) {
    byte = byte == '<' ? '(' : byte == '>' ? ')' : byte == '&' ? '+' : byte;
  }
  return text;
}

// The length of the character that begins with this byte of valid UTF-8.
std::size_t bytesOf(char first) {
  const auto byte = static_cast<unsigned char>(first);
  return byte < 0x80 ? 1 : byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : 4;
}

// A server parts what is longer itself, and counts the pieces.
void addPieces(const std::string& text, std::vector<std::string>& pieces) {
  std::size_t begin = 0;
  std::size_t units = 0;
  for (std::size_t at = 0; at < text.size(); at += bytesOf(text[at])) {
    const std::size_t wide = bytesOf(text[at]) == 4 ? 2 : 1;
    if (units + wide > kLongestMessage) {
      pieces.push_back(text.substr(begin, at - begin));
      begin = at;
      units = 0;
    }
    units += wide;
  }
  if (begin < text.size()) {
    pieces.push_back(text.substr(begin));
  }
}

Json::Value messages(const std::vector<std::string>& details, std::size_t most) {
  std::vector<std::string> pieces;
  for (const std::string& detail : details) {
    addPieces(plain(detail), pieces);
  }
  if (pieces.size() > most) {
    const std::size_t left = pieces.size() - (most - 1);
    pieces.resize(most - 1);
    pieces.push_back(std::to_string(left) + " more messages are not told.");
  }
  Json::Value list(Json::arrayValue);
  for (const std::string& piece : pieces) {
    list.append(piece);
  }
  return list;
}

std::string plainAttribute(const std::string& text) {
  std::string plain = text.substr(0, kLongestAttribute);
  for (char& byte : plain) {
    byte = byte >= ' ' && byte <= '~' ? byte : '?';
  }
  return plain;
}

Finished resultOf(const Feedback& feedback) {
  if (feedback.execution != Execution::Closed) {
    return Finished::None;
  }
  return feedback.finished == Finished::Success ? Finished::Success : Finished::Failure;
}

}  // namespace

std::string textOf(const Feedback& feedback) {
  Json::Value document;
  document["timestamp"] = static_cast<Json::Int64>(feedback.time);
  Json::Value& status = document["status"];
  status["execution"] = kExecutions[static_cast<std::size_t>(feedback.execution)];
  status["result"]["finished"] = kResults[static_cast<std::size_t>(resultOf(feedback))];
  if (feedback.code) {
    status["code"] = *feedback.code;
  }
  status["details"] = messages(feedback.details, feedback.code ? kMostMessages - 1 : kMostMessages);
  return written(document);
}

std::string confirmationText(bool isConfirmed, const std::vector<std::string>& details) {
  Json::Value document;
  document["confirmation"] = isConfirmed ? "confirmed" : "denied";
  document["details"] = messages(details, kMostMessages);
  return written(document);
}

std::string attributesText(const std::map<std::string, std::string>& attributes) {
  Json::Value document;
  Json::Value& data = document["data"] = Json::Value(Json::objectValue);
  for (const auto& [name, value] : attributes) {
    if (data.size() < kMostAttributes && !name.empty()) {
      data[plainAttribute(name)] = plainAttribute(value);
    }
  }
  if (data.empty()) {
    return "";
  }
  document["mode"] = "replace";  // a component that is gone is told no more
  return written(document);
}

}  // namespace fleet::ddi
