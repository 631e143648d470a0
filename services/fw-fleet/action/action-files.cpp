// SPDX-License-Identifier: Apache-2.0
#include "action-files.h"

#include <dirent.h>
#include <fcntl.h>
#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>

#include "file-descriptor.h"
#include "system-error.h"
#include "whole-file.h"

namespace fleet {
namespace {

constexpr int kFormat = 1;
constexpr char kSuffix[] = ".action";
constexpr char kSetAside[] = ".damaged";
constexpr std::size_t kLargest = std::size_t{8} << 20;

// Names in the order of the enumerators.
constexpr const char* kHandlings[] = {"skip", "attempt", "forced"};
constexpr const char* kWindows[] = {"none", "unavailable", "available"};
constexpr const char* kStages[] = {"wanted", "downloaded", "checked", "asked", "installed", "failed"};
constexpr const char* kConsents[] = {"none", "given", "declined"};
constexpr const char* kConfirmations[] = {"none", "wanted", "confirming", "denying", "answered", "denied"};
constexpr const char* kCancels[] = {"none", "accepting", "refusing"};
constexpr const char* kEndings[] = {"none", "success", "failure", "canceled", "gone"};

// A member is missing, or of another kind.
struct Wrong {};

template <typename Enum, std::size_t Count>
const char* nameIn(const char* const (&names)[Count], Enum value) {
  return names[static_cast<std::size_t>(value)];
}

std::string text(const Json::Value& object, const char* name) {
  const Json::Value& value = object[name];
  return value.isString() ? value.asString() : throw Wrong();
}

bool truth(const Json::Value& object, const char* name) {
  const Json::Value& value = object[name];
  return value.isBool() ? value.asBool() : throw Wrong();
}

template <typename Enum, std::size_t Count>
Enum oneOf(const char* const (&names)[Count], const Json::Value& object, const char* name) {
  const std::string wanted = text(object, name);
  const auto* const found =
      std::find_if(std::begin(names), std::end(names), [&](const char* one) { return wanted == one; });
  return found != std::end(names) ? static_cast<Enum>(found - std::begin(names)) : throw Wrong();
}

const Json::Value& list(const Json::Value& object, const char* name) {
  const Json::Value& value = object[name];
  const bool hasObjects =
      value.isArray() &&
      std::all_of(value.begin(), value.end(), [](const Json::Value& one) { return one.isObject(); });
  return hasObjects ? value : throw Wrong();
}

struct Truth {
  const char* name;
  bool Action::*place;
};
constexpr Truth kTruths[] = {
    {"toldDownload", &Action::toldDownload},
    {"toldDownloaded", &Action::toldDownloaded},
    {"toldProceeding", &Action::toldProceeding},
    {"reported", &Action::isReported},
};

Json::Value jsonOf(const ddi::Artifact& artifact) {
  Json::Value value;
  value["fileName"] = artifact.fileName;
  value["size"] = artifact.size ? Json::Value(static_cast<Json::Int64>(*artifact.size)) : Json::Value(-1);
  value["sha256"] = artifact.sha256;
  value["address"] = artifact.address;
  return value;
}

ddi::Artifact artifactOf(const Json::Value& value) {
  const Json::Value& size = value["size"];
  if (!size.isInt64()) {
    throw Wrong();
  }
  return {text(value, "fileName"), size.asInt64() < 0 ? std::nullopt : std::optional(size.asInt64()),
          text(value, "sha256"), text(value, "address")};
}

Json::Value jsonOf(const Component& component) {
  Json::Value value;
  value["name"] = component.name;
  value["version"] = component.version;
  value["stage"] = nameIn(kStages, component.stage);
  value["attempts"] = component.attempts;
  value["versionBefore"] = component.versionBefore;
  value["jobBefore"] = static_cast<Json::UInt64>(component.jobBefore);
  value["sentence"] = component.sentence;
  value["remedy"] = component.remedy;
  Json::Value& artifacts = value["artifacts"] = Json::Value(Json::arrayValue);
  for (const ddi::Artifact& artifact : component.artifacts) {
    artifacts.append(jsonOf(artifact));
  }
  return value;
}

Component componentOf(const Json::Value& value) {
  Component component;
  component.name = text(value, "name");
  component.version = text(value, "version");
  component.stage = oneOf<Stage>(kStages, value, "stage");
  component.attempts = value["attempts"].isInt() ? value["attempts"].asInt() : throw Wrong();
  component.versionBefore = text(value, "versionBefore");
  component.jobBefore = value["jobBefore"].isUInt64() ? value["jobBefore"].asUInt64() : throw Wrong();
  component.sentence = text(value, "sentence");
  component.remedy = text(value, "remedy");
  const Json::Value& artifacts = list(value, "artifacts");
  std::transform(artifacts.begin(), artifacts.end(), std::back_inserter(component.artifacts), artifactOf);
  return component;
}

Action actionIn(const Json::Value& value) {
  Action action;
  action.id = text(value, "id");
  action.number = value["number"].isUInt64() ? value["number"].asUInt64() : throw Wrong();
  action.download = oneOf<ddi::Handling>(kHandlings, value, "download");
  action.update = oneOf<ddi::Handling>(kHandlings, value, "update");
  action.window = oneOf<ddi::Window>(kWindows, value, "window");
  action.problem = text(value, "problem");
  action.content = value.isMember("content") ? text(value, "content") : "";
  action.consent = oneOf<Consent>(kConsents, value, "consent");
  action.confirmation = oneOf<Confirmation>(kConfirmations, value, "confirmation");
  action.cancel = oneOf<Cancel>(kCancels, value, "cancel");
  action.ending = oneOf<Ending>(kEndings, value, "ending");
  for (const Truth& row : kTruths) {
    action.*row.place = truth(value, row.name);
  }
  const Json::Value& components = list(value, "components");
  std::transform(components.begin(), components.end(), std::back_inserter(action.components), componentOf);
  return action;
}

bool isPlain(char byte) {
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9') ||
         byte == '-' || byte == '_';
}

bool isActionFile(const std::string& name) {
  constexpr std::size_t kLength = sizeof kSuffix - 1;
  return name.size() > kLength && name.compare(name.size() - kLength, kLength, kSuffix) == 0;
}

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};

std::vector<std::string> namesIn(const std::string& path) {
  const std::unique_ptr<DIR, CloseDirectory> directory(opendir(path.c_str()));
  if (!directory) {
    base::throwErrno(path);
  }
  std::vector<std::string> names;
  for (const dirent* entry = nullptr; (entry = readdir(directory.get())) != nullptr;) {
    names.emplace_back(entry->d_name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace

std::string textOf(const Action& action) {
  Json::Value value;
  value["format"] = kFormat;
  value["id"] = action.id;
  value["number"] = static_cast<Json::UInt64>(action.number);
  value["download"] = nameIn(kHandlings, action.download);
  value["update"] = nameIn(kHandlings, action.update);
  value["window"] = nameIn(kWindows, action.window);
  value["problem"] = action.problem;
  value["content"] = action.content;
  value["consent"] = nameIn(kConsents, action.consent);
  value["confirmation"] = nameIn(kConfirmations, action.confirmation);
  value["cancel"] = nameIn(kCancels, action.cancel);
  value["ending"] = nameIn(kEndings, action.ending);
  for (const Truth& row : kTruths) {
    value[row.name] = action.*row.place;
  }
  Json::Value& components = value["components"] = Json::Value(Json::arrayValue);
  for (const Component& component : action.components) {
    components.append(jsonOf(component));
  }
  Json::StreamWriterBuilder builder;
  builder["indentation"] = " ";
  return Json::writeString(builder, value) + "\n";
}

std::variant<Action, Unusable> parseAction(const std::string& text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["stackLimit"] = 16;
  Json::Value value;
  try {
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr) || !value.isObject() ||
        !value["format"].isInt()) {
      return Unusable::Damaged;
    }
    if (value["format"].asInt() > kFormat) {
      return Unusable::Newer;
    }
    return actionIn(value);
  } catch (const Wrong&) {
  } catch (const Json::Exception&) {  // too deep
  }
  return Unusable::Damaged;
}

std::string fileNameOf(const std::string& id) {
  std::string name;
  for (const char byte : id) {
    char coded[4] = {byte};
    if (!isPlain(byte)) {
      std::snprintf(coded, sizeof coded, "%%%02X",
                    static_cast<unsigned int>(static_cast<unsigned char>(byte)));
    }
    name += coded;
  }
  return name + kSuffix;
}

ActionFiles::ActionFiles(std::string directory) : directory_(std::move(directory)) {
  if (mkdir(directory_.c_str(), 0700) != 0 && errno != EEXIST) {
    base::throwErrno(directory_);
  }
}

int ActionFiles::keep(const Action& action) const {
  const base::FileDescriptor directory(open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return directory ? base::replaceFileAt(directory.get(), fileNameOf(action.id), textOf(action), true)
                   : errno;
}

KeptActions ActionFiles::load() const {
  KeptActions kept;
  for (const std::string& name : namesIn(directory_)) {
    const std::string path = directory_ + "/" + name;
    std::string content;
    if (!isActionFile(name)) {
      continue;
    }
    if (const int error = base::readFile(path, kLargest, content); error != 0 && error != EFBIG) {
      throw std::system_error(error, std::generic_category(), path);
    }
    auto read = parseAction(content);
    if (auto* const action = std::get_if<Action>(&read);
        action != nullptr && fileNameOf(action->id) == name) {
      if (condense(*action)) {
        keep(*action);  // where that fails it is done at the next start
      }
      kept.actions.push_back(std::move(*action));
    } else if (const auto* const why = std::get_if<Unusable>(&read);
               why != nullptr && *why == Unusable::Newer) {
      kept.newer.push_back(path);
    } else if (rename(path.c_str(), (path + kSetAside).c_str()) == 0) {
      kept.setAside.push_back(path + kSetAside);
    } else {
      base::throwErrno(path);
    }
  }
  std::sort(kept.actions.begin(), kept.actions.end(),
            [](const Action& one, const Action& other) { return one.number < other.number; });
  return kept;
}

void ActionFiles::prune(const std::vector<Action>& actions, std::size_t most) const {
  std::vector<const Action*> ended;
  for (const Action& action : actions) {
    if (action.isOver() && action.isReported) {
      ended.push_back(&action);
    }
  }
  std::sort(ended.begin(), ended.end(),
            [](const Action* one, const Action* other) { return one->number < other->number; });
  for (std::size_t number = 0; number + most < ended.size(); ++number) {
    unlink((directory_ + "/" + fileNameOf(ended[number]->id)).c_str());
  }
}

}  // namespace fleet
