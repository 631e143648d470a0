// SPDX-License-Identifier: Apache-2.0
#include "status.h"

#include <json/reader.h>

#include <algorithm>
#include <iterator>
#include <memory>

#include "printable-text.h"

namespace fleet {
namespace {

// By Stage and Ending; the last is that of an action that is not over, and that nobody works on.
constexpr const char* kStages[] = {"wanted", "downloaded", "checked", "updating", "updated", "failed"};
constexpr const char* kEndings[] = {"open", "success", "failure", "canceled", "gone", "denied"};

const char* stateOf(const Action& action) {
  const bool isDenied =
      action.confirmation == Confirmation::Denying || action.confirmation == Confirmation::Denied;
  return !action.isOver() && isDenied ? *std::rbegin(kEndings)
                                      : kEndings[static_cast<std::size_t>(action.ending)];
}

Json::Value jsonOf(const Component& component) {
  Json::Value value;
  value["name"] = component.name;
  value["version"] = component.version;
  value["stage"] = kStages[static_cast<std::size_t>(component.stage)];
  value["sentence"] = component.sentence;
  value["remedy"] = component.remedy;
  return value;
}

Json::Value jsonOf(const Action& action, bool isSomebodyTold) {
  Json::Value value;
  value["id"] = action.id;
  value["state"] = stateOf(action);
  if (isSomebodyTold) {
    value["told"] = action.isReported;
  }
  Json::Value& components = value["components"] = Json::Value(Json::arrayValue);
  for (const Component& component : action.components) {
    components.append(jsonOf(component));
  }
  return value;
}

std::string textIn(const Json::Value& value, const char* name) {
  return value.isObject() && value[name].isString() ? base::printableText(value[name].asString()) : "";
}

std::string behind(const char* before, const std::string& text) {
  return text.empty() ? "" : before + text;
}

std::string textOfAction(const Json::Value& action) {
  const std::string id = textIn(action, "id");
  std::string text = "Action " + id + ": " + textIn(action, "state") +
                     behind(", asks whether to ", textIn(action, "asks")) + "\n";
  for (const Json::Value& component : action["components"]) {
    text += "  " + textIn(component, "name") + " " + textIn(component, "version") + ": " +
            textIn(component, "stage") + behind(". ", textIn(component, "sentence")) +
            behind(" ", textIn(component, "remedy")) + "\n";
  }
  return text + (textIn(action, "asks").empty() ? "" : "  To answer: fw-fleet consent " + id + " yes\n");
}

}  // namespace

Json::Value statusOf(const Agent& agent, const Configuration& configuration, std::time_t now) {
  Json::Value status;
  const bool isList = configuration.source == SourceType::List;
  status[isList ? "list" : "server"] = isList ? configuration.list : configuration.server;
  if (!isList) {
    status["controller"] = configuration.controller;
  }
  status["trouble"] = agent.trouble();
  status["nextPoll"] = static_cast<Json::Int64>(
      std::int64_t{now} + std::chrono::duration_cast<std::chrono::seconds>(agent.pause()).count());
  Json::Value& actions = status["actions"] = Json::Value(Json::arrayValue);
  for (const Action& action : agent.actions()) {
    Json::Value& added = actions.append(jsonOf(action, !isList));
    added["asks"] = agent.asks(action);
  }
  return status;
}

std::optional<Json::Value> statusIn(const std::string& text) {
  Json::Value status;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  const bool isStatus = reader->parse(text.data(), text.data() + text.size(), &status, nullptr) &&
                        status.isObject() && status["nextPoll"].isInt64() && status["actions"].isArray();
  return isStatus ? std::optional(status) : std::nullopt;
}

std::string textOf(const Json::Value& status, std::time_t now) {
  const std::int64_t left = std::max<std::int64_t>(status["nextPoll"].asInt64() - std::int64_t{now}, 0);
  const std::string trouble = textIn(status, "trouble");
  std::string text = status.isMember("list")
                         ? "List: " + textIn(status, "list")
                         : "Server: " + textIn(status, "server") + ", as " + textIn(status, "controller");
  text += "\nAsked next: in " + std::to_string(left) + " s\n";
  if (!trouble.empty()) {
    text += "Trouble: " + trouble + "\n";
  }
  for (const Json::Value& action : status["actions"]) {
    text += textOfAction(action);
  }
  return text + (status["actions"].empty() ? "No action is known.\n" : "");
}

}  // namespace fleet
