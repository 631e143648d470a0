// SPDX-License-Identifier: Apache-2.0
#include "frame/description.h"

#include <iostream>

#include "text-layout.h"

namespace frame {
namespace {

struct ValueKind {
  const char* valueName;
  const char* completes;
};

constexpr ValueKind kValueKinds[] = {
    {"FILE", "files"},  {"PATH", "files"},      {"IMAGE", "files"},      {"PACKAGE", "files"},
    {"TRACE", "files"}, {"DIR", "directories"}, {"ROOT", "directories"}, {"BUILD", "directories"},
};

const char* completionOf(const OptionInfo& info) {
  if (info.completes == Completes::Modules) {
    return "modules";
  }
  for (const ValueKind& kind : kValueKinds) {
    if (info.valueName() == kind.valueName) {
      return kind.completes;
    }
  }
  return "";
}

Json::Value arrayOf(const std::vector<std::string>& texts) {
  Json::Value array(Json::arrayValue);
  for (const std::string& text : texts) {
    array.append(text);
  }
  return array;
}

Json::Value describe(const BoundOption& option) {
  const OptionInfo& info = *option.info;
  Json::Value described;
  described["names"] = arrayOf(info.names());
  described["value"] = info.valueName();
  described["summary"] = info.text();
  described["required"] = info.isRequired;
  described["many"] = option.takesMany();
  described["words"] = arrayOf(info.words != nullptr ? info.words() : std::vector<std::string>());
  described["completes"] = completionOf(info);
  return described;
}

Json::Value flag(const std::vector<std::string>& names, const char* summary) {
  Json::Value described;
  described["names"] = arrayOf(names);
  described["value"] = "";
  described["summary"] = summary;
  described["required"] = false;
  described["many"] = false;
  described["words"] = Json::arrayValue;
  described["completes"] = "";
  return described;
}

void addOptions(Json::Value& command, const std::vector<BoundOption>& options) {
  for (const BoundOption& option : options) {
    command[option.info->names().empty() ? "arguments" : "options"].append(describe(option));
  }
}

Json::Value empty(const std::string& name, const std::string& summary, const std::string& usage) {
  Json::Value command;
  command["name"] = name;
  command["summary"] = summary;
  command["usage"] = usage;
  command["options"].append(flag({"-h", "--help"}, "Print this help message and exit"));
  command["arguments"] = Json::arrayValue;
  command["commands"] = Json::arrayValue;
  command["remark"] = "";
  return command;
}

void describe(const BoundProgram& program, const BoundCommand& command, Json::Value& into) {
  addOptions(into, command.options);
  if (*command.info.name != '\0') {  // the program has them
    addOptions(into, program.common);
  }
  into["usage"] = usageOf(program, command);
  into["example"] = command.info.example;
  into["takesProgram"] = command.program != nullptr;
  into["remark"] = command.info.remark != nullptr ? command.info.remark() : "";
}

// The group of the name, made when there is none yet; or the program itself.
Json::Value& parentOf(const BoundProgram& program, const std::string& name, Json::Value& root) {
  const auto blank = name.find(' ');
  if (blank == std::string::npos) {
    return root;
  }
  const std::string group = name.substr(0, blank);
  for (Json::Value& command : root["commands"]) {
    if (command["name"].asString() == group) {
      return command;
    }
  }
  for (const Group& known : program.info->groups) {
    if (group == known.name) {
      return root["commands"].append(
          empty(group, known.summary, std::string(program.info->name) + " " + group + " SUBCOMMAND"));
    }
  }
  return root;
}

Json::Value outcomesOf(const ProgramInfo& program) {
  Json::Value outcomes(Json::arrayValue);
  for (const OutcomeInfo& outcome : program.outcomes) {
    Json::Value described;
    described["outcome"] = outcome.id;
    described["exitCode"] = outcome.exitCode;
    described["meaning"] = outcome.meaning != nullptr ? outcome.meaning : "";
    outcomes.append(described);
  }
  return outcomes;
}

}  // namespace

const BoundCommand* ownOf(const BoundProgram& program) {
  const BoundCommand& last = program.commands.back();
  return *last.info.name == '\0' ? &last : nullptr;
}

Json::Value descriptionOf(const BoundProgram& program) {
  const ProgramInfo& info = *program.info;
  Json::Value root = empty(info.name, info.summary, std::string(info.name) + " [OPTIONS] SUBCOMMAND");
  root["options"].append(flag({"--version"}, "Display program version information and exit"));
  if (const BoundCommand* const own = ownOf(program)) {
    describe(program, *own, root);
    root["usage"] = root["usage"].asString() + (program.hasCommands() ? " [SUBCOMMAND]" : "");
  }
  addOptions(root, program.common);
  for (const BoundCommand& command : program.commands) {
    const std::string name = command.info.name;
    if (!name.empty()) {
      Json::Value& parent = parentOf(program, name, root);
      const auto blank = name.rfind(' ');
      Json::Value& added = parent["commands"].append(
          empty(blank == std::string::npos ? name : name.substr(blank + 1), command.info.summary, ""));
      describe(program, command, added);
    }
  }
  root["outcomes"] = outcomesOf(info);
  root["exitCodeRemark"] = info.exitCodeRemark != nullptr ? info.exitCodeRemark : "";
  return root;
}

void putDescription(const BoundProgram& program) {
  std::cout << tool::indented(descriptionOf(program)) << std::flush;
}

}  // namespace frame
