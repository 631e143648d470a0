// SPDX-License-Identifier: Apache-2.0
#include "entry-line.h"

#include <unistd.h>

#include "printable-text.h"
#include "terminal.h"
#include "time-text.h"

namespace tracetool {
namespace {

std::string withoutLineFeeds(const std::string& text) {
  const std::size_t last = text.find_last_not_of('\n');
  return last == std::string::npos ? "" : text.substr(0, last + 1);
}

std::string inColour(const std::string& text) {
  if (text.rfind("Error", 0) == 0) {
    return tool::coloured(text, tool::Colour::Red, STDOUT_FILENO);
  }
  if (text.rfind("=====", 0) == 0) {
    return tool::coloured(text, tool::Colour::Bold, STDOUT_FILENO);
  }
  return text;
}

Json::Value jsonOf(const Value& value) {
  if (value.kind == Value::Kind::Number) {
    return static_cast<Json::Int>(value.number);
  }
  return value.kind == Value::Kind::Null ? Json::Value() : Json::Value(value.text);
}

}  // namespace

std::string lineOf(const Entry& entry) {
  const Message& message = entry.message;
  const std::string thread =
      std::to_string(entry.file->trace.processId) + "/" + std::to_string(message.threadId);
  return timeOfDay(message.time) + "  " + thread +
         std::string(thread.size() < 15 ? 15 - thread.size() : 0, ' ') + "  " +
         base::printableText(message.function) + "(" + std::to_string(message.line) + ")  " +
         inColour(base::printableText(withoutLineFeeds(message.text))) + "\n";
}

Json::Value jsonOf(const Entry& entry) {
  const Message& message = entry.message;
  const std::int64_t microseconds = message.time / 1000;
  Json::Value value;
  value["time"] = static_cast<double>(microseconds) / 1e6;
  value["nanoseconds"] = Json::Int64{message.time};
  value["processId"] = entry.file->trace.processId;
  value["threadId"] = message.threadId;
  value["file"] = message.file;
  value["function"] = message.function;
  value["line"] = message.line;
  value["format"] = message.format;
  value["text"] = message.text;
  value["arguments"] = Json::arrayValue;
  for (const Value& argument : message.values) {
    value["arguments"].append(jsonOf(argument));
  }
  return value;
}

}  // namespace tracetool
