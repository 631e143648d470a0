#include "isolation/told.h"

#include <json/reader.h>
#include <json/value.h>

#include <memory>

#include "text-layout.h"

namespace tool {
namespace {

Json::Value toJson(const LogMessage& message) {
  Json::Value value;
  value["priority"] = message.priority;
  value["file"] = message.file;
  value["function"] = message.function;
  value["line"] = message.line;
  value["format"] = message.format;
  value["text"] = message.text;
  value["arguments"] = Json::arrayValue;
  for (const std::string& argument : message.arguments) {
    value["arguments"].append(argument);
  }
  value["errno"] = message.errorNumber;
  value["thread"] = Json::Int64{message.thread};
  value["time"] = Json::Int64{message.time.time_since_epoch().count()};
  return value;
}

LogMessage messageOf(const Json::Value& value) {
  LogMessage message;
  message.priority = value["priority"].asInt();
  message.file = value["file"].asString();
  message.function = value["function"].asString();
  message.line = value["line"].asInt();
  message.format = value["format"].asString();
  message.text = value["text"].asString();
  for (const Json::Value& argument : value["arguments"]) {
    message.arguments.push_back(argument.asString());
  }
  message.errorNumber = value["errno"].asInt();
  message.thread = static_cast<long>(value["thread"].asInt64());
  message.time =
      std::chrono::steady_clock::time_point(std::chrono::steady_clock::duration(value["time"].asInt64()));
  return message;
}

struct ToJson {
  Json::Value value{Json::objectValue};

  void operator()(const LogMessage& message) { value["log"] = toJson(message); }
  void operator()(const StepTold& told) {
    value["step"] = static_cast<int>(told.step);
    value["module"] = told.module;
    value["firmware"] = told.firmware;
  }
  void operator()(const ProgressTold& told) { value["asking"] = told.asking; }
  void operator()(const ResultTold& told) { value["exitCode"] = told.exitCode; }
};

std::optional<Told> toldBy(const Json::Value& value) {
  if (value.isMember("log")) {
    return messageOf(value["log"]);
  }
  if (value.isMember("asking")) {
    return ProgressTold{value["asking"].asBool()};
  }
  if (value.isMember("exitCode")) {
    return ResultTold{value["exitCode"].asInt()};
  }
  const int step = value["step"].asInt();
  if (step < static_cast<int>(Step::Start) || step > static_cast<int>(Step::End)) {
    return std::nullopt;
  }
  return StepTold{static_cast<Step>(step), value["module"].asString(), value["firmware"].asString()};
}

}  // namespace

std::string toDatagram(const Told& told) {
  ToJson json;
  std::visit([&json](const auto& one) { json(one); }, told);
  return onOneLine(json.value);
}

std::optional<Told> fromDatagram(std::string_view datagram) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value value;
  try {
    if (reader->parse(datagram.data(), datagram.data() + datagram.size(), &value, nullptr) &&
        value.isObject()) {
      return toldBy(value);
    }
  } catch (const Json::Exception&) {
    // A member of another kind than expected.
  }
  return std::nullopt;
}

}  // namespace tool
